// SPDX-License-Identifier: MIT
// One network interface, as a link message of the kernel (rtnetlink) describes it.
#include "link.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "netlink.h"

namespace pmtud_linux {

namespace {

struct Contents {
    Link link;
    bool hasName = false;
    bool hasMtu = false;
};

bool readNumber(const nlattr* attribute, uint32_t& number) {
    if (mnl_attr_validate(attribute, MNL_TYPE_U32) < 0) return false;
    number = mnl_attr_get_u32(attribute);
    return true;
}

// The attribute holds the kind of this interface's master.
int readMasterKind(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) == IFLA_INFO_SLAVE_KIND)
        static_cast<Link*>(data)->inVrf = textOf(attribute) == "vrf";
    return MNL_CB_OK;
}

int readAlternativeName(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) == IFLA_ALT_IFNAME)
        static_cast<Link*>(data)->alternativeNames.emplace_back(textOf(attribute));
    return MNL_CB_OK;
}

int readAttribute(const nlattr* attribute, void* data) {
    Contents& contents = *static_cast<Contents*>(data);
    Link& link = contents.link;
    switch (mnl_attr_get_type(attribute)) {
        case IFLA_IFNAME:
            contents.hasName = true;
            link.name = textOf(attribute);
            return MNL_CB_OK;
        case IFLA_MTU:
            contents.hasMtu = readNumber(attribute, link.mtu);
            return contents.hasMtu ? MNL_CB_OK : MNL_CB_ERROR;
        case IFLA_LINKINFO:
            return mnl_attr_parse_nested(attribute, readMasterKind, &link);
        case IFLA_PROP_LIST:
            return mnl_attr_parse_nested(attribute, readAlternativeName, &link);
        default:
            return MNL_CB_OK;
    }
}

}  // namespace

std::optional<Link> decodeLink(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return std::nullopt;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return std::nullopt;
    ifinfomsg header;
    memcpy(&header, mnl_nlmsg_get_payload(&message), sizeof header);
    // A bridge announces its ports in messages of the bridge family, where "deleted" means that the
    // interface left the bridge.
    if (header.ifi_family != AF_UNSPEC) return std::nullopt;

    Contents contents;
    if (mnl_attr_parse(&message, sizeof header, readAttribute, &contents) < 0) return std::nullopt;
    Link& link = contents.link;
    link.ifindex = static_cast<uint32_t>(header.ifi_index);
    link.gone = message.nlmsg_type == RTM_DELLINK;
    link.ethernet = header.ifi_type == ARPHRD_ETHER;
    // A wireless driver announces events in link messages that have neither MTU nor alternative
    // names.
    if (!link.gone && !(contents.hasName && contents.hasMtu)) return std::nullopt;
    return std::move(contents.link);
}

nlmsghdr* putLinkRequest(char* buffer, int ifindex) {
    nlmsghdr* const request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_GETLINK;
    request->nlmsg_flags = NLM_F_REQUEST;
    auto* const header =
        static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    header->ifi_index = ifindex;
    mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    return request;
}

}  // namespace pmtud_linux
