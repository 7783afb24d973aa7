// SPDX-License-Identifier: MIT
// Fuzzes the transmit queue of the Linux platform: what is sent and where, and what is refused.
#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "input.h"
#include "messages.h"
#include "tx_queue.h"

using fuzz::fail;
using fuzz::Input;
using fuzz::require;
using pmtud_linux::TxQueue;
using Record = st_pktd_shm_queue_entry_data_t;

namespace {

constexpr int kPostsPerInput = 16;
constexpr int kPacketSocket = 1000;
constexpr size_t kLargestFrame = 9000;

struct Interface {
    int index;
    const char* name;
    int vlan;
};

// Names of VLANs, of the first and the last one, and names that only resemble them.
constexpr std::array<Interface, 7> kInterfaces = {{{1, "lo", 0},
                                                   {2, "bcm0.1", 1},
                                                   {3, "bcm0.20", 20},
                                                   {4, "bcm0.020", 0},
                                                   {40000, "bcm0.4094", 4094},
                                                   {2147483647, "bcm0.77", 77},
                                                   {70000, "bcm0.4095", 0}}};

template <typename Value, typename Member>
const Interface* interfaceWith(const Value& value, Member member) {
    const auto* const found = std::ranges::find(kInterfaces, value, member);
    return found == kInterfaces.end() ? nullptr : found;
}

const Interface* byIndex(int64_t index) { return interfaceWith(index, &Interface::index); }

const Interface* byName(const std::string& name) { return interfaceWith(name, &Interface::name); }

struct Sent {
    int ifindex;
    uint16_t protocol;  // as it is in the address
    Bytes bytes;

    bool operator==(const Sent&) const = default;
};

struct Kernel {
    bool isOpen = false;
    int socketError = 0;
    int sendError = 0;
    std::optional<Sent> sent;
};

Kernel* kernel = nullptr;

// What must become of a post.
struct Expected {
    int result = 0;
    std::optional<Sent> sent;
};

const Interface* egressOf(const Record& record) {
    const auto& control = record.ctrl;
    if (control.dst_valid == 0)
        return control.vid < 1 || control.vid > 4094
                   ? nullptr
                   : byName("bcm0." + std::to_string(control.vid));
    return control.dst_unit != 0 ? nullptr : byIndex(int64_t{control.dst_port} + 1);
}

Expected expect(const Record& record, size_t length) {
    if (length < 14) return {-EINVAL, {}};
    if (length > kLargestFrame) return {-EMSGSIZE, {}};
    if (!kernel->isOpen && kernel->socketError != 0) return {-kernel->socketError, {}};
    const Interface* const egress = egressOf(record);
    if (egress == nullptr) return {-ENODEV, {}};
    if (kernel->sendError != 0) return {-kernel->sendError, {}};
    Bytes frame(record.opaque_0, record.opaque_0 + length);
    const bool hasTag = length >= 18 && get16(frame, 12) == 0x8100;
    if (hasTag && egress->vlan != 0 && get16(frame, 14) % 4096 == static_cast<size_t>(egress->vlan))
        frame.erase(frame.begin() + 12, frame.begin() + 16);
    uint16_t protocol = 0;
    memcpy(&protocol, &frame[12], sizeof protocol);
    return {0, Sent{egress->index, protocol, frame}};
}

void draw(Input& input, Record& record) {
    auto& control = record.ctrl;
    constexpr std::array<int, 8> kNumbers = {0, 1, 20, 77, 4094, 4095, -1, 2147483647};
    control.vid = input.oneOf(kNumbers);
    control.dst_valid = static_cast<decltype(control.dst_valid)>(input.byte() % 3);
    control.dst_unit = input.byte() % 8 == 0 ? input.number<int8_t>() : 0;
    constexpr std::array<int, 10> kPorts = {0,     1,          2,          3,  39999,
                                            69999, 2147483646, 2147483647, -1, 5};
    control.dst_port = input.oneOf(kPorts);
    Bytes start(24);
    for (size_t i = 0; i < 12; ++i) start[i] = input.byte();
    constexpr std::array<uint16_t, 4> kTypes = {0x8100, 0x0800, 0x8101, 0x88a8};
    put16(start, 12, input.oneOf(kTypes));
    put16(start, 14, static_cast<size_t>(input.oneOf(kNumbers) | (input.byte() << 12)));
    for (size_t i = 16; i < 24; ++i) start[i] = input.byte();
    std::copy(start.begin(), start.end(), record.opaque_0);
    record.opaque_0[kLargestFrame - 1] = input.byte();
}

size_t drawLength(Input& input) {
    constexpr std::array<size_t, 12> kLengths = {0,    13,   14,   17,   18,          19,
                                                 1518, 8999, 9000, 9001, 1ULL << 32U, SIZE_MAX};
    return input.oneOf(kLengths);
}

void post(Input& input, TxQueue& queue, Record& record) {
    draw(input, record);
    const size_t length = drawLength(input);
    constexpr std::array<int, 8> kErrors = {0, 0, 0, 0, EPERM, EMFILE, EAFNOSUPPORT, ENOMEM};
    constexpr std::array<int, 8> kRefusals = {0, 0, 0, 0, EAGAIN, ENOBUFS, ENETDOWN, EMSGSIZE};
    kernel->socketError = input.oneOf(kErrors);
    kernel->sendError = input.oneOf(kRefusals);
    kernel->sent.reset();
    const Expected expected = expect(record, length);
    uint32_t out = 0xdeadbeef;
    const bool wantsOut = input.byte() % 4 != 0;
    require(queue.post(record, length, wantsOut ? &out : nullptr) == expected.result, "the result");
    require(kernel->sent == expected.sent, "what is sent, and where to");
    const bool wrote = wantsOut && expected.sent.has_value();
    require(out == (wrote ? expected.sent->bytes.size() : 0xdeadbeef), "how much was sent");
}

}  // namespace

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
    require(domain == AF_PACKET && type == (SOCK_RAW | SOCK_CLOEXEC) && protocol == 0,
            "a socket that only sends");
    require(!kernel->isOpen, "one socket");
    if (kernel->socketError != 0) return fail(kernel->socketError);
    kernel->isOpen = true;
    return kPacketSocket;
}

int __wrap_close(int fd) {
    require(fd == kPacketSocket && kernel->isOpen, "only the queue's socket is closed");
    kernel->isOpen = false;
    return 0;
}

// Fails, so that interfaces have only their own names.
mnl_socket* __wrap_mnl_socket_open2(int, int) {
    fail(EMFILE);
    return nullptr;
}

int __wrap_ioctl(int fd, unsigned long request, ifreq* about) {
    require(fd == kPacketSocket && kernel->isOpen, "the queue's own socket");
    require(request == SIOCGIFNAME || request == SIOCGIFINDEX, "requests");
    const bool hasIndex = request == SIOCGIFNAME;
    require(hasIndex || memchr(about->ifr_name, 0, IFNAMSIZ) != nullptr, "a name that ends");
    const Interface* const found = hasIndex ? byIndex(about->ifr_ifindex) : byName(about->ifr_name);
    if (found == nullptr) return fail(ENODEV);
    if (hasIndex)
        strcpy(about->ifr_name, found->name);
    else
        about->ifr_ifindex = found->index;
    return 0;
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    require(fd == kPacketSocket && kernel->isOpen, "the queue's own socket");
    require(flags == (MSG_DONTWAIT | MSG_NOSIGNAL), "nothing waits");
    if (kernel->sendError != 0) return fail(kernel->sendError);
    sockaddr_ll to{};
    require(message->msg_namelen == sizeof to, "an address");
    memcpy(&to, message->msg_name, sizeof to);
    require(to.sll_family == AF_PACKET, "its family");
    Sent sent{to.sll_ifindex, to.sll_protocol, {}};
    for (size_t i = 0; i < message->msg_iovlen; ++i) {
        const auto* const start = static_cast<const uint8_t*>(message->msg_iov[i].iov_base);
        sent.bytes.insert(sent.bytes.end(), start, start + message->msg_iov[i].iov_len);
    }
    kernel->sent = sent;
    return static_cast<ssize_t>(sent.bytes.size());
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Kernel fresh;
    kernel = &fresh;
    // A separate allocation, so that reading beyond the record is noticed.
    const auto record = std::make_unique<Record>();
    {
        TxQueue queue;
        for (int count = 0; count < kPostsPerInput && !input.exhausted(); ++count)
            post(input, queue, *record);
    }
    require(!fresh.isOpen, "the socket is closed with the queue");
    return 0;
}
