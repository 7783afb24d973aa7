/* SPDX-License-Identifier: MIT */
/* The ICMPv6 send library: how ICMPv6 messages leave by a layer-3 VLAN interface. */
#ifndef PMTUD_PLATFORM_ARPD_H
#define PMTUD_PLATFORM_ARPD_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Open a socket that sends ICMPv6 by the interface named `ifname` ("bcm0.N").
 * 0: *fd is open, and the caller closes it with close(2).  Any other value is a
 * failure (on Linux a negative errno value) and leaves nothing to close.
 */
int arpd_icmp6_socket_create(int32_t* fd, const char* ifname);

/*
 * Send one ICMPv6 message, the iovcnt pieces of iov one behind the other, as the
 * payload of one IPv6 packet to `to`, out of the interface numbered ifindex
 * (0: the interface that the socket belongs to).  The message's checksum field is
 * 0: the sender fills it in over the pseudo-header (RFC 4443 section 2.3), as it
 * chooses source address and hop limit.  `to` carries no scope id.  The message may
 * be longer than the link's MTU; the sender fragments it.  The buffers stay
 * the caller's.  0 or more: sent.  Negative: not sent.
 */
int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex);

#ifdef __cplusplus
}
#endif

#endif
