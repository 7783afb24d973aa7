// SPDX-License-Identifier: MIT
// Sends a withdrawn answer of the kernel's after all.
#include "kernel_answer.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "ip_packet.h"

namespace pmtud_linux {

int KernelAnswer::send(const LogMessage& message, const Copy& refused) {
    if (message.egress != refused.ingress) return -EHOSTUNREACH;
    // Protocol 0: the socket only sends, and no packet is copied to it.
    if (!m_socket.valid()) m_socket.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!m_socket.valid()) return -errno;

    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ipVersion(message.payload) == 4 ? ETH_P_IP : ETH_P_IPV6);
    to.sll_ifindex = static_cast<int>(message.egress);
    to.sll_halen = ETH_ALEN;
    memcpy(to.sll_addr, &refused.addresses[ETH_ALEN], ETH_ALEN);
    const ssize_t sent =
        sendto(m_socket.get(), message.payload.data(), message.payload.size(),
               MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? -errno : 0;
}

}  // namespace pmtud_linux
