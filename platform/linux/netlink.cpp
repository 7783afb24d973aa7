// SPDX-License-Identifier: MIT
// Netlink datagrams: validating their sender and their lengths.
#include "netlink.h"

#include <linux/netlink.h>

#include <algorithm>
#include <cstring>

namespace pmtud_linux {

size_t wholeMessages(const char* bytes, size_t length) {
    size_t whole = 0;
    while (length - whole >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        memcpy(&header, bytes + whole, sizeof header);
        const size_t claimed = header.nlmsg_len;
        if (claimed < sizeof header || claimed > length - whole) break;
        // The last one may end without the padding of the others.
        const size_t padding = -claimed % NLMSG_ALIGNTO;
        whole += claimed + std::min(padding, length - whole - claimed);
    }
    return whole;
}

}  // namespace pmtud_linux
