// SPDX-License-Identifier: MIT
// A packet as the kernel logs it to a log group (nfnetlink_log).
#include "log_message.h"

#include <arpa/inet.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netfilter/nfnetlink.h>

#include "netlink.h"
#include "ruleset.h"
#include "vlan_name.h"

namespace pmtud_linux {

namespace {

bool readNumber(const nlattr* attribute, uint32_t& number) {
    if (mnl_attr_get_payload_len(attribute) != sizeof number) return false;
    number = ntohl(mnl_attr_get_u32(attribute));
    return true;
}

std::span<const uint8_t> view(const nlattr* attribute) {
    return {static_cast<const uint8_t*>(mnl_attr_get_payload(attribute)),
            mnl_attr_get_payload_len(attribute)};
}

int readAttribute(const nlattr* attribute, void* data) {
    LogMessage& message = *static_cast<LogMessage*>(data);
    bool read = true;
    switch (mnl_attr_get_type(attribute)) {
        case NFULA_PREFIX:
            message.prefix = textOf(attribute);
            break;
        case NFULA_IFINDEX_INDEV:
            read = readNumber(attribute, message.ingress);
            break;
        case NFULA_IFINDEX_OUTDEV:
            read = readNumber(attribute, message.egress);
            break;
        case NFULA_MARK:
            read = readNumber(attribute, message.mark);
            break;
        case NFULA_SEQ: {
            uint32_t sequence = 0;
            read = readNumber(attribute, sequence);
            message.sequence = sequence;
            break;
        }
        case NFULA_HWHEADER:
            message.linkHeader = view(attribute);
            break;
        case NFULA_PAYLOAD:
            message.payload = view(attribute);
            break;
        default:
            break;
    }
    return read ? MNL_CB_OK : MNL_CB_ERROR;
}

}  // namespace

bool isLogged(const nlmsghdr& message) {
    return message.nlmsg_type == ((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET);
}

std::optional<LogMessage> decodeLogMessage(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nfgenmsg)) return std::nullopt;
    LogMessage read;
    if (mnl_attr_parse(&message, sizeof(nfgenmsg), readAttribute, &read) < 0) return std::nullopt;
    return read;
}

int copiedFor(std::string_view prefix) {
    if (!prefix.starts_with(kCopyPrefix)) return 0;
    return vlanOfNumber(prefix.substr(std::string_view(kCopyPrefix).size()));
}

}  // namespace pmtud_linux
