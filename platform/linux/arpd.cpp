// SPDX-License-Identifier: MIT
// The ICMPv6 send library: a raw socket bound to the interface.
#include <net/if.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "seam.h"

using pmtud_linux::Descriptor;

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    if (fd == nullptr || ifname == nullptr || *ifname == '\0') return -EINVAL;
    // SO_BINDTODEVICE truncates a long name, which could then match another interface.
    if (strnlen(ifname, IFNAMSIZ) == IFNAMSIZ) return -ENODEV;

    Descriptor raw(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));
    if (!raw.valid()) return -errno;

    // The socket only sends. Without this filter the kernel would queue a copy of every ICMPv6
    // message on it.
    icmp6_filter nothing;
    ICMP6_FILTER_SETBLOCKALL(&nothing);
    if (setsockopt(raw.get(), IPPROTO_ICMPV6, ICMP6_FILTER, &nothing, sizeof nothing) != 0)
        return -errno;

    const auto length = static_cast<socklen_t>(strlen(ifname));
    if (setsockopt(raw.get(), SOL_SOCKET, SO_BINDTODEVICE, ifname, length) != 0) return -errno;

    *fd = raw.release();
    return 0;
}

int arpd_ipv6_pkt_send(int32_t fd, const sockaddr_in6* to, const iovec* iov, int iovcnt,
                       uint32_t ifindex) {
    if (to == nullptr || iov == nullptr || iovcnt <= 0) return -EINVAL;

    sockaddr_in6 destination = *to;
    msghdr message{};
    message.msg_name = &destination;
    message.msg_namelen = sizeof destination;
    message.msg_iov = const_cast<iovec*>(iov);  // sendmsg(2) only reads it
    message.msg_iovlen = static_cast<size_t>(iovcnt);

    // A link-local destination needs an interface, but comes without a scope id.
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
    if (ifindex != 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = IPPROTO_IPV6;
        header->cmsg_type = IPV6_PKTINFO;
        header->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
        in6_pktinfo info{};
        info.ipi6_ifindex = ifindex;
        memcpy(CMSG_DATA(header), &info, sizeof info);
    }

    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    return sent < 0 ? -errno : static_cast<int>(sent);
}
