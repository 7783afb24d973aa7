// SPDX-License-Identifier: MIT
// Validates the sender and the lengths of netlink datagrams, and reads the text of an attribute.
#include "netlink.h"

#include <libmnl/libmnl.h>

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
        // The last message may lack the padding of the others.
        const size_t padding = -claimed % NLMSG_ALIGNTO;
        whole += claimed + std::min(padding, length - whole - claimed);
    }
    return whole;
}

std::string_view textOf(const nlattr* attribute) {
    const auto* const start = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {start, strnlen(start, mnl_attr_get_payload_len(attribute))};
}

}  // namespace pmtud_linux
