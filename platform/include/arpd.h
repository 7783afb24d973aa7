/* SPDX-License-Identifier: MIT */
/* The ICMPv6 send library: sends ICMPv6 messages via a layer-3 VLAN interface. */
#ifndef PMTUD_PLATFORM_ARPD_H
#define PMTUD_PLATFORM_ARPD_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Open a socket that sends ICMPv6 via the interface named `ifname` ("bcm0.N").
 * 0: *fd is open, and the caller closes it with close(2). Any other value is a
 * failure (on Linux a negative errno value) and leaves nothing to close.
 */
int arpd_icmp6_socket_create(int32_t* fd, const char* ifname);

/*
 * Send one ICMPv6 message, the iovcnt pieces of iov concatenated, as the payload
 * of one IPv6 packet to `to`, via the interface with index ifindex (0: the
 * interface to which the socket is bound). The message's checksum field is 0: the
 * library fills it in over the pseudo-header (RFC 4443 section 2.3), because it
 * chooses the source address. It chooses the hop limit too. `to` carries no scope
 * id. The message may exceed the link's MTU; the library fragments it. The caller
 * keeps the buffers. 0 or more: sent. Negative: not sent.
 */
int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex);

#ifdef __cplusplus
}
#endif

#endif
