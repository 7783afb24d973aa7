// SPDX-License-Identifier: MIT
// What is read from the messages of a log group.
#include "log_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstring>
#include <memory>
#include <vector>

using pmtud_linux::copiedFor;
using pmtud_linux::decodeLogMessage;
using pmtud_linux::isLogged;
using pmtud_linux::LogMessage;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kLinkHeader = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x08, 0x00};

// One message of the log group, as the kernel writes it.
class Message {
 public:
    Message() {
        m_header = mnl_nlmsg_put_header(m_bytes.data());
        m_header->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET;
        mnl_nlmsg_put_extra_header(m_header, sizeof(nfgenmsg));
    }

    Message& put(uint16_t type, const Bytes& value) {
        mnl_attr_put(m_header, type, value.size(), value.data());
        return *this;
    }

    nlmsghdr* operator->() { return m_header; }
    const nlmsghdr& operator*() const { return *m_header; }

    // The attribute of the type, to be falsified.
    nlattr* attribute(uint16_t type) {
        nlattr* at = static_cast<nlattr*>(mnl_nlmsg_get_payload_offset(m_header, sizeof(nfgenmsg)));
        while (mnl_attr_get_type(at) != type) at = mnl_attr_next(at);
        return at;
    }

 private:
    std::vector<char> m_bytes = std::vector<char>(4096);
    nlmsghdr* m_header = nullptr;
};

Message whole() {
    Message message;
    message.put(NFULA_PACKET_HDR, {0x08, 0x00, 0, 0})
        .put(NFULA_PREFIX, {'p', 'm', 't', 'u', 'd', ':', '2', '0', 0})
        .put(NFULA_IFINDEX_INDEV, {0, 0, 0, 5})
        .put(NFULA_IFINDEX_OUTDEV, {0, 0, 1, 7})
        .put(NFULA_MARK, {0, 0, 2, 1})
        .put(NFULA_HWTYPE, {0, 1})
        .put(NFULA_HWLEN, {0, 14})
        .put(NFULA_HWHEADER, kLinkHeader)
        .put(NFULA_SEQ, {0, 0, 1, 2})
        .put(NFULA_PAYLOAD, {0x45, 0x00, 0xbe, 0xef});
    return message;
}

}  // namespace

TEST(LogMessage, TellsPrefixInterfacesMarkSequenceLinkHeaderAndPacket) {
    const Message bytes = whole();
    const auto message = decodeLogMessage(*bytes);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->prefix, "pmtud:20");
    EXPECT_EQ(message->ingress, 5U);
    EXPECT_EQ(message->egress, 263U);
    EXPECT_EQ(message->mark, 513U);
    EXPECT_EQ(message->sequence, 258U);
    EXPECT_THAT(message->linkHeader, ElementsAreArray(kLinkHeader));
    EXPECT_THAT(message->payload, ElementsAre(0x45, 0x00, 0xbe, 0xef));
}

TEST(LogMessage, MayTellNothing) {
    const Message bytes;
    const auto message = decodeLogMessage(*bytes);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->prefix, "");
    EXPECT_EQ(message->ingress, 0U);
    EXPECT_EQ(message->egress, 0U);
    EXPECT_EQ(message->mark, 0U);
    EXPECT_FALSE(message->sequence);
    EXPECT_THAT(message->linkHeader, IsEmpty());
    EXPECT_THAT(message->payload, IsEmpty());
}

TEST(LogMessage, MayCarryAttributesThatNobodyHereKnows) {
    Message bytes = whole();
    bytes.put(999, {1, 2, 3, 4, 5});
    const auto message = decodeLogMessage(*bytes);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->prefix, "pmtud:20");
}

TEST(LogMessage, IsAPacketOfALogGroupByItsType) {
    Message bytes;
    EXPECT_TRUE(isLogged(*bytes));
    bytes->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
    EXPECT_FALSE(isLogged(*bytes));
    bytes->nlmsg_type = (NFNL_SUBSYS_QUEUE << 8) | NFULNL_MSG_PACKET;
    EXPECT_FALSE(isLogged(*bytes));
    bytes->nlmsg_type = NLMSG_DONE;
    EXPECT_FALSE(isLogged(*bytes));
}

TEST(LogMessage, TooShortForItsHeaderIsNone) {
    Message bytes;
    bytes->nlmsg_len = MNL_NLMSG_HDRLEN + sizeof(nfgenmsg) - 1;
    EXPECT_FALSE(decodeLogMessage(*bytes));
}

TEST(LogMessage, WithANumberOfTheWrongSizeIsNone) {
    for (const uint16_t type : {NFULA_IFINDEX_INDEV, NFULA_IFINDEX_OUTDEV, NFULA_MARK, NFULA_SEQ})
        for (const size_t size : {0U, 2U, 8U})
            EXPECT_FALSE(decodeLogMessage(*Message().put(type, Bytes(size))))
                << type << " " << size;
}

// libmnl reads attributes as long as they fit.
TEST(LogMessage, WhosePacketClaimsMoreThanThereIsHasNone) {
    Message bytes = whole();
    bytes.attribute(NFULA_PAYLOAD)->nla_len += 4;
    const auto message = decodeLogMessage(*bytes);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->sequence, 258U);
    EXPECT_THAT(message->payload, IsEmpty());
}

TEST(LogMessage, WithAnAttributeShorterThanItsHeaderEndsThere) {
    for (const uint16_t claimed : {uint16_t{0}, uint16_t{1}, uint16_t{3}}) {
        Message bytes = whole();
        bytes.attribute(NFULA_SEQ)->nla_len = claimed;
        const auto message = decodeLogMessage(*bytes);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->prefix, "pmtud:20");
        EXPECT_FALSE(message->sequence);
        EXPECT_THAT(message->payload, IsEmpty());
    }
}

// A copy of exactly that many bytes, so that a sanitizer sees every read beyond them.
TEST(LogMessage, CutShortIsReadNoFurtherThanItGoes) {
    const Message bytes = whole();
    for (uint32_t size = MNL_NLMSG_HDRLEN; size < (*bytes).nlmsg_len; size += NLMSG_ALIGNTO) {
        const std::unique_ptr<char[]> cut(new char[size]);
        std::memcpy(cut.get(), &*bytes, size);
        auto* const header = reinterpret_cast<nlmsghdr*>(cut.get());
        header->nlmsg_len = size;
        const auto message = decodeLogMessage(*header);
        EXPECT_TRUE(!message || message->payload.empty()) << size;
    }
}

TEST(LogMessage, HasAPrefixWithOrWithoutItsEnd) {
    EXPECT_EQ(decodeLogMessage(*Message().put(NFULA_PREFIX, {'a', 'b', 'c'}))->prefix, "abc");
    EXPECT_EQ(decodeLogMessage(*Message().put(NFULA_PREFIX, {'a', 'b', 0, 'c'}))->prefix, "ab");
    EXPECT_EQ(decodeLogMessage(*Message().put(NFULA_PREFIX, {}))->prefix, "");
}

TEST(LogPrefix, OfACopyNamesTheEgressVlan) {
    EXPECT_EQ(copiedFor("pmtud:1"), 1);
    EXPECT_EQ(copiedFor("pmtud:20"), 20);
    EXPECT_EQ(copiedFor("pmtud:4094"), 4094);
}

TEST(LogPrefix, OfAnythingElseNamesNone) {
    for (const char* prefix :
         {"", "pmtud", "pmtud:", "pmtud:0", "pmtud:4095", "pmtud:020", "pmtud:20 ", "pmtud: 20",
          "pmtud:-20", "pmtud:refused", "pmtud20", "PMTUD:20", "xpmtud:20", "20"})
        EXPECT_EQ(copiedFor(prefix), 0) << prefix;
}
