// SPDX-License-Identifier: MIT
// Detects whether the daemon's answers leave the router.
#include "answer_watch.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "netlink_request.h"
#include "ruleset.h"

namespace pmtud_linux {

namespace {

// The attributes are nested: the object's data contains the counter's packets.
int readPackets(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) != NFTA_COUNTER_PACKETS) return MNL_CB_OK;
    if (mnl_attr_get_payload_len(attribute) != sizeof(uint64_t)) {
        errno = EBADMSG;
        return MNL_CB_ERROR;
    }
    uint64_t packets = 0;
    memcpy(&packets, mnl_attr_get_payload(attribute), sizeof packets);
    *static_cast<std::optional<uint64_t>*>(data) = be64toh(packets);
    return MNL_CB_OK;
}

int readData(const nlattr* attribute, void* data) {
    if (mnl_attr_get_type(attribute) != NFTA_OBJ_DATA) return MNL_CB_OK;
    return mnl_attr_parse_nested(attribute, readPackets, data);
}

int readObject(const nlmsghdr* message, void* data) {
    const int result = mnl_attr_parse(message, sizeof(nfgenmsg), readData, data);
    return result == MNL_CB_OK ? MNL_CB_STOP : result;
}

}  // namespace

int AnswerWatch::open() { return openSocket(m_socket, NETLINK_NETFILTER, 0); }

std::optional<uint64_t> AnswerWatch::readCounter() const {
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* const request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETOBJ;
    nfgenmsg family{};
    family.nfgen_family = NFPROTO_INET;
    memcpy(mnl_nlmsg_put_extra_header(request, sizeof family), &family, sizeof family);
    mnl_attr_put_strz(request, NFTA_OBJ_TABLE, "pmtud");
    mnl_attr_put_strz(request, NFTA_OBJ_NAME, kAnswersCounter);
    mnl_attr_put_u32(request, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
    std::optional<uint64_t> packets;
    if (requestFromKernel(m_socket, request, readObject, &packets) != 0) return std::nullopt;
    return packets;
}

bool AnswerWatch::hasLeft() {
    const std::optional<uint64_t> left = readCounter();
    return !left || std::exchange(m_left, *left) != *left;
}

}  // namespace pmtud_linux
