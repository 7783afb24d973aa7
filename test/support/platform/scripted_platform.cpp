// SPDX-License-Identifier: MIT
// The scripted platform's answers for the daemon as a process: the script's, and its frames.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "fake_platform.h"
#include "scripted_play.h"

namespace {

/// Frames come when the main thread is parked, so that the log's order is always the same.
void deliverFrames(pktd_rx_cb_t callback) noexcept {
    scripted::awaitMainThreadParked();
    for (const scripted::Delivery& delivery : scripted::script().deliveries) {
        st_pktd_shm_queue_entry_data_t record{};
        record.ctrl = delivery.ctrl;
        // What follows the frame is readable and zero, as a reader of it may expect.
        std::vector<uint8_t> buffer(scripted::kFrameBuffer);
        std::copy(delivery.frame.begin(), delivery.frame.end(), buffer.begin());
        const int verdict =
            callback(&record, buffer.data(), static_cast<int>(delivery.frame.size()));
        scripted::log("verdict " + std::to_string(verdict));
    }
    scripted::log("frames done");
}

int startDelivery() {
    if (scripted::script().deliveries.empty()) return 0;
    std::thread(deliverFrames, fake::platform().callback).detach();
    return 0;
}

int createRawSocket(int32_t* fd) {
    const int created = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (created == -1) return -errno;
    const std::string& name = fake::platform().interface;
    if (setsockopt(created, SOL_SOCKET, SO_BINDTODEVICE, name.data(),
                   static_cast<socklen_t>(name.size())) != 0) {
        const int error = errno;
        close(created);
        return -error;
    }
    *fd = created;
    return 0;
}

int sendRaw() {
    const fake::Icmp6Message& message = fake::platform().icmp6Messages.back();
    sockaddr_in6 to = message.to;
    to.sin6_scope_id = message.ifindex;
    if (sendto(message.fd, message.bytes.data(), message.bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&to), sizeof to) != -1) {
        return 0;
    }
    const int error = errno;
    scripted::log("arpd_ipv6_pkt_send: " + std::string(strerror(error)));
    return -error;
}

template <typename Map>
auto valueOr0(const Map& map, int key) {
    const auto found = map.find(key);
    return found == map.end() ? typename Map::mapped_type{} : found->second;
}

}  // namespace

namespace scripted {

void installAnswers() {
    fake::Platform& platform = fake::platform();
    platform.destVlan = [](int egress) { return valueOr0(script().vlans, egress); };
    platform.vlanMtu = [](int vlan) { return valueOr0(script().mtus, vlan); };
    platform.mtuVlan = [](int) { return 0; };
    platform.rxThreadInit = startDelivery;
    if (!script().sendsIcmp6) return;
    platform.icmp6SocketCreate = createRawSocket;
    platform.icmp6Send = sendRaw;
}

}  // namespace scripted
