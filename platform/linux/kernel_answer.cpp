// SPDX-License-Identifier: MIT
// Sends the kernel's own answer, which the rules had withdrawn.
#include "kernel_answer.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ip_packet.h"

namespace pmtud_linux {

namespace {

constexpr size_t kSource = ETH_ALEN;  // offset in a copy's addresses

bool openOnce(Descriptor& kept, int family, int type, int protocol) {
    if (!kept.valid()) kept.reset(socket(family, type | SOCK_CLOEXEC, protocol));
    return kept.valid();
}

template <typename Address>
int sendTo(const Descriptor& socket, const LogMessage& message, const Address& to) {
    const ssize_t sent =
        sendto(socket.get(), message.payload.data(), message.payload.size(),
               MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? -errno : 0;
}

// The message includes its IP header (raw(7), ipv6(7)).
bool openRaw(Descriptor& kept, int family) { return openOnce(kept, family, SOCK_RAW, IPPROTO_RAW); }

bool knowsStation(const Copy& copy) {
    return std::any_of(&copy.addresses[kSource], copy.addresses.data() + copy.addresses.size(),
                       [](uint8_t byte) { return byte != 0; });
}

}  // namespace

int KernelAnswer::send(const LogMessage& message, const Copy* refused) {
    if (ipHeaderSize(message.payload) == 0) return -EBADMSG;
    if (refused != nullptr && message.egress == refused->ingress && knowsStation(*refused) &&
        toStation(message, *refused) == 0)
        return 0;
    return ipVersion(message.payload) == 4 ? byRoute4(message) : byRoute6(message);
}

int KernelAnswer::toStation(const LogMessage& message, const Copy& refused) {
    // Protocol 0: the socket only sends, so the kernel copies no packets to it.
    if (!openOnce(m_packets, AF_PACKET, SOCK_DGRAM, 0)) return -errno;
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ipVersion(message.payload) == 4 ? ETH_P_IP : ETH_P_IPV6);
    to.sll_ifindex = static_cast<int>(message.egress);
    to.sll_halen = ETH_ALEN;
    memcpy(to.sll_addr, &refused.addresses[kSource], ETH_ALEN);
    return sendTo(m_packets, message, to);
}

// Not bound to the interface: without a route via it, the kernel would treat the receiver as a
// neighbour, and the loss would go unnoticed.
int KernelAnswer::byRoute4(const LogMessage& message) {
    if (!openRaw(m_raw4, AF_INET)) return -errno;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    memcpy(&to.sin_addr, &message.payload[16], sizeof to.sin_addr);
    return sendTo(m_raw4, message, to);
}

// A link-local receiver needs the interface, as does one in a VRF.
int KernelAnswer::byRoute6(const LogMessage& message) {
    if (!openRaw(m_raw6, AF_INET6)) return -errno;
    const uint32_t egress = htonl(message.egress);
    if (setsockopt(m_raw6.get(), IPPROTO_IPV6, IPV6_UNICAST_IF, &egress, sizeof egress) != 0)
        return -errno;
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, &message.payload[24], sizeof to.sin6_addr);
    return sendTo(m_raw6, message, to);
}

}  // namespace pmtud_linux
