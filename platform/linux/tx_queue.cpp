// SPDX-License-Identifier: MIT
// The transmit queue: sends posted frames through a packet socket.
#include "tx_queue.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "interface_vlan.h"
#include "vlan_name.h"

namespace pmtud_linux {

namespace {

struct Egress {
    int ifindex = 0;  // 0: none
    int vlan = 0;     // 0: not a bcm0.N; frames are sent unchanged
};

Egress portEgress(int socket, int unit, int port) {
    if (unit != 0 || port < 0 || port == std::numeric_limits<int>::max()) return {};
    if (nameOfInterface(socket, port + 1).empty()) return {};
    return {port + 1, vlanOfInterface(socket, port + 1)};
}

Egress vlanEgress(int socket, int vlan) {
    if (vlan < kFirstVlan || vlan > kLastVlan) return {};
    return {indexOfInterface(socket, nameOfVlan(vlan)), vlan};
}

// A tag with VLAN 0 carries only a priority (IEEE 802.1Q) and belongs to no VLAN.
bool isTagged(const uint8_t* frame, size_t length, int vlan) {
    constexpr size_t kTaggedHeaderSize = ETH_HLEN + 4;
    if (vlan == 0 || length < kTaggedHeaderSize) return false;
    if (frame[12] != ETH_P_8021Q >> 8 || frame[13] != (ETH_P_8021Q & 0xff)) return false;
    return ((frame[14] & 0x0f) << 8 | frame[15]) == vlan;
}

}  // namespace

int fillRecord(st_pktd_shm_queue_entry_data_t* record, int proto, int vid, const uint8_t* frame,
               size_t length) {
    if (record == nullptr || frame == nullptr) return -EINVAL;
    if (length > sizeof record->opaque_0) return -EMSGSIZE;
    memset(record, 0, sizeof *record);
    memcpy(record->opaque_0, frame, length);
    record->ctrl.proto = proto;
    record->ctrl.vid = vid;
    return 0;
}

int TxQueue::open() {
    // Protocol 0: the socket only sends, so the kernel copies no packets to it.
    m_socket.reset(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    return m_socket.valid() ? 0 : -errno;
}

int TxQueue::post(const st_pktd_shm_queue_entry_data_t& record, size_t length, uint32_t* out) {
    if (length < ETH_HLEN) return -EINVAL;
    if (length > sizeof record.opaque_0) return -EMSGSIZE;
    if (!m_socket.valid()) {
        if (const int result = open(); result != 0) return result;
    }
    const st_pktd_shm_queue_entry_ctrl_t& control = record.ctrl;
    const Egress egress = control.dst_valid != 0
                              ? portEgress(m_socket.get(), control.dst_unit, control.dst_port)
                              : vlanEgress(m_socket.get(), control.vid);
    if (egress.ifindex == 0) return -ENODEV;

    constexpr size_t kAddressesSize = size_t{2} * ETH_ALEN;
    constexpr size_t kTagSize = 4;
    const uint8_t* const frame = record.opaque_0;
    const size_t rest = kAddressesSize + (isTagged(frame, length, egress.vlan) ? kTagSize : 0);
    // sendmsg(2) only reads the pieces.
    iovec pieces[] = {{const_cast<uint8_t*>(frame), kAddressesSize},
                      {const_cast<uint8_t*>(frame) + rest, length - rest}};

    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = egress.ifindex;
    memcpy(&to.sll_protocol, frame + rest, sizeof to.sll_protocol);
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    const ssize_t sent = sendmsg(m_socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) return -errno;
    if (out != nullptr) *out = static_cast<uint32_t>(sent);
    return 0;
}

}  // namespace pmtud_linux
