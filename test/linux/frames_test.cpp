// SPDX-License-Identifier: MIT
// From a message of the log group to record and frame.
#include "frames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <vector>

using pmtud_linux::decodePacket;
using pmtud_linux::Frame;
using pmtud_linux::LoggedPacket;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes linkHeader = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x08, 0x00};

// 24 bytes of IPv4, header and four bytes.
const Bytes ipv4 = {0x45, 0x00, 0x00, 0x18, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xfd, 0x9a,
                    0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02, 0xde, 0xad, 0xbe, 0xef};

// 42 bytes of IPv6, header and two bytes.
const Bytes ipv6 = {0x60, 0, 0, 0, 0, 2, 59, 64, 0xfd, 0, 0,    0x10, 0,    0,
                    0,    0, 0, 0, 0, 0, 0,  0,  0,    2, 0xfd, 0,    0,    0x20,
                    0,    0, 0, 0, 0, 0, 0,  0,  0,    0, 0,    2,    0xca, 0xfe};

// One message of the log group, as the kernel writes it.
class Message {
 public:
    Message() {
        m_header = mnl_nlmsg_put_header(m_bytes->data());
        m_header->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET;
        auto* const family =
            static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(m_header, sizeof(nfgenmsg)));
        family->nfgen_family = AF_INET;
        family->version = NFNETLINK_V0;
    }

    Message& put(uint16_t type, const Bytes& value) {
        mnl_attr_put(m_header, type, value.size(), value.data());
        return *this;
    }

    nlmsghdr* header() { return m_header; }

    size_t length() const { return m_header->nlmsg_len; }

    // The attribute of the type, to be falsified.
    nlattr* attribute(uint16_t type) {
        char* at = reinterpret_cast<char*>(m_header) + MNL_NLMSG_HDRLEN + sizeof(nfgenmsg);
        while (mnl_attr_get_type(reinterpret_cast<nlattr*>(at)) != type)
            at = reinterpret_cast<char*>(mnl_attr_next(reinterpret_cast<nlattr*>(at)));
        return reinterpret_cast<nlattr*>(at);
    }

    std::optional<LoggedPacket> decode() const { return decodePacket(m_header, length()); }

 private:
    struct alignas(8) Storage : std::array<char, 66000> {};
    std::unique_ptr<Storage> m_bytes = std::make_unique<Storage>();
    nlmsghdr* m_header = nullptr;
};

Message whole(const Bytes& payload = ipv4, const Bytes& protocol = {0x08, 0x00, 0, 0}) {
    Message message;
    message.put(NFULA_PACKET_HDR, protocol)
        .put(NFULA_MARK, {0, 0, 0, 7})
        .put(NFULA_IFINDEX_INDEV, {0, 0, 0, 5})
        .put(NFULA_HWTYPE, {0, 1})
        .put(NFULA_HWLEN, {0, 14})
        .put(NFULA_HWHEADER, linkHeader)
        .put(NFULA_SEQ, {0, 0, 1, 2})
        .put(NFULA_PAYLOAD, payload);
    return message;
}

// Decodes a copy of exactly so many bytes, so that a sanitizer sees every read behind them.
std::optional<LoggedPacket> decodeCopy(Message& message, size_t length) {
    const std::unique_ptr<char[]> bytes(new char[length]);
    std::memcpy(bytes.get(), message.header(), length);
    return decodePacket(bytes.get(), length);
}

LoggedPacket tellingAll() {
    LoggedPacket packet;
    packet.ingress = 5;
    packet.mark = 7;
    packet.protocol = 0x0800;
    packet.linkHeader = linkHeader;
    packet.payload = ipv4;
    return packet;
}

Bytes frameBytes(Frame& frame) { return {frame.data(), frame.data() + frame.size()}; }

Bytes behind(Frame& frame) { return {frame.data() + frame.size(), frame.data() + Frame::capacity}; }

}  // namespace

TEST(LogMessage, TellsIngressMarkProtocolAndSequence) {
    const Message message = whole();
    const auto packet = message.decode();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->ingress, 5U);
    EXPECT_EQ(packet->mark, 7U);
    EXPECT_EQ(packet->protocol, 0x0800);
    EXPECT_EQ(packet->sequence, 258U);
    EXPECT_THAT(packet->linkHeader, ElementsAreArray(linkHeader));
    EXPECT_THAT(packet->payload, ElementsAreArray(ipv4));
}

TEST(LogMessage, OfAnotherTypeIsNone) {
    Message message = whole();
    message.header()->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
    EXPECT_FALSE(message.decode());
    message.header()->nlmsg_type = NLMSG_DONE;
    EXPECT_FALSE(message.decode());
}

TEST(LogMessage, IsReadNoFurtherThanItGoes) {
    Message message = whole();
    for (size_t length = 0; length < message.length(); ++length)
        EXPECT_FALSE(decodeCopy(message, length)) << length;
}

TEST(LogMessage, ThatClaimsALengthBelowItsHeaderIsNone) {
    Message message = whole();
    for (const uint32_t claimed : {0U, 1U, 15U, 16U, 19U}) {
        message.header()->nlmsg_len = claimed;
        EXPECT_FALSE(decodeCopy(message, 200)) << claimed;
    }
}

TEST(LogMessage, ThatClaimsMoreThanThereIsIsNone) {
    Message message = whole();
    const size_t length = message.length();
    message.header()->nlmsg_len = static_cast<uint32_t>(length + 1);
    EXPECT_FALSE(decodeCopy(message, length));
    message.header()->nlmsg_len = 0xffffffff;
    EXPECT_FALSE(decodeCopy(message, length));
}

TEST(LogMessage, WhosePaddingIsMissingIsNone) {
    Message message = whole(Bytes(21, 0x45));
    const size_t unpadded = message.length() - 3;
    message.header()->nlmsg_len = static_cast<uint32_t>(unpadded);
    EXPECT_FALSE(decodeCopy(message, unpadded));
}

TEST(LogMessage, WhosePayloadClaimsMoreThanThereIsHasNoPayload) {
    Message message = whole();
    nlattr* const payload = message.attribute(NFULA_PAYLOAD);
    payload->nla_len = static_cast<uint16_t>(payload->nla_len + 1);
    const auto packet = decodeCopy(message, message.length());
    ASSERT_TRUE(packet);
    EXPECT_TRUE(packet->payload.empty());
}

TEST(LogMessage, WithAnAttributeShorterThanItsHeaderEndsThere) {
    for (const uint16_t claimed : {uint16_t{0}, uint16_t{1}, uint16_t{3}}) {
        Message message = whole();
        message.attribute(NFULA_SEQ)->nla_len = claimed;
        const auto packet = decodeCopy(message, message.length());
        ASSERT_TRUE(packet);
        EXPECT_FALSE(packet->sequence);
        EXPECT_TRUE(packet->payload.empty());
    }
}

TEST(LogMessage, WithANumberOfTheWrongSizeIsNone) {
    for (const uint16_t type : {NFULA_MARK, NFULA_IFINDEX_INDEV, NFULA_SEQ})
        for (const size_t size : {0U, 2U, 8U})
            EXPECT_FALSE(Message().put(type, Bytes(size)).decode()) << type << " " << size;
    EXPECT_FALSE(Message().put(NFULA_PACKET_HDR, {0x08, 0x00, 0}).decode());
}

TEST(LogMessage, MayTellNothing) {
    const auto packet = Message().decode();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->ingress, 0U);
    EXPECT_EQ(packet->mark, 0U);
    EXPECT_EQ(packet->protocol, 0);
    EXPECT_FALSE(packet->sequence);
    EXPECT_TRUE(packet->linkHeader.empty());
    EXPECT_TRUE(packet->payload.empty());
}

TEST(LogMessage, MayCarryAttributesThatNobodyHereKnows) {
    Message message = whole();
    message.put(999, {1, 2, 3, 4, 5});
    ASSERT_TRUE(message.decode());
}

TEST(Frame, OfIpv4IsTaggedWithTheIngressVlan) {
    Frame frame;
    const Message message = whole();
    ASSERT_TRUE(frame.build(*message.decode(), 10));
    EXPECT_THAT(frameBytes(frame),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01,  // destination
                            0x02, 0x00, 0x00, 0x00, 0x10, 0x02,  // source
                            0x81, 0x00, 0x00, 0x0a, 0x08, 0x00,  // tag, EtherType
                            0x45, 0x00, 0x00, 0x18, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xfd, 0x9a,
                            0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,  // IPv4
                            0xde, 0xad, 0xbe, 0xef));
}

TEST(Frame, OfIpv6IsTaggedWithTheIngressVlan) {
    Frame frame;
    const Message message = whole(ipv6, {0x86, 0xdd, 0, 0});
    ASSERT_TRUE(frame.build(*message.decode(), 4094));
    EXPECT_EQ(frame.size(), 60U);
    const Bytes bytes = frameBytes(frame);
    EXPECT_THAT(Bytes(bytes.begin(), bytes.begin() + 20),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01, 0x02, 0x00, 0x00, 0x00, 0x10, 0x02,
                            0x81, 0x00, 0x0f, 0xfe, 0x86, 0xdd, 0x60, 0x00));
    EXPECT_EQ(bytes[58], 0xca);
    EXPECT_EQ(bytes[59], 0xfe);
}

TEST(Frame, HasARecordThatCountsPortsFromZero) {
    Frame frame;
    const Message message = whole();
    ASSERT_TRUE(frame.build(*message.decode(), 10));
    // The plus reads the unaligned member as a value.
    const st_pktd_shm_queue_entry_ctrl_t& control = frame.record().ctrl;
    EXPECT_EQ(+control.unit, 0);
    EXPECT_EQ(+control.port, 4);
    EXPECT_EQ(+control.is_trunk, 0);
    EXPECT_EQ(+control.tid, 0);
    EXPECT_EQ(+control.dst_valid, 0);
    EXPECT_EQ(+control.proto, 0x0800);
    EXPECT_EQ(+control.vid, 10);
    EXPECT_EQ(+control.vtag, 10);
    EXPECT_EQ(+control.egress, 7);
    EXPECT_EQ(+control.post_kind, 0U);
}

TEST(Frame, OfIpv6HasItsEtherTypeInTheRecord) {
    Frame frame;
    const Message message = whole(ipv6, {0x86, 0xdd, 0, 0});
    ASSERT_TRUE(frame.build(*message.decode(), 10));
    EXPECT_EQ(+frame.record().ctrl.proto, 0x86dd);
}

TEST(Frame, IsFollowedByZeros) {
    Frame frame;
    ASSERT_EQ(Frame::capacity, 65593U);
    const Message message = whole(Bytes(9000, 0x45));
    ASSERT_TRUE(frame.build(*message.decode(), 10));
    EXPECT_EQ(frame.size(), 9018U);
    EXPECT_THAT(behind(frame), Each(0));
}

TEST(Frame, ThatIsShorterThanTheOneBeforeIsFollowedByZeros) {
    Frame frame;
    const Message longer = whole(Bytes(9000, 0x45));
    const Message shorter = whole();
    ASSERT_TRUE(frame.build(*longer.decode(), 10));
    ASSERT_TRUE(frame.build(*shorter.decode(), 10));
    EXPECT_EQ(frame.size(), 42U);
    EXPECT_THAT(behind(frame), Each(0));
}

TEST(Frame, ThatIsLongerThanTheOneBeforeIsWhole) {
    Frame frame;
    const Message shorter = whole();
    const Message longer = whole(Bytes(9000, 0x45));
    ASSERT_TRUE(frame.build(*shorter.decode(), 10));
    ASSERT_TRUE(frame.build(*longer.decode(), 10));
    EXPECT_EQ(frame.size(), 9018U);
    EXPECT_THAT(Bytes(frame.data() + 18, frame.data() + 9018), Each(0x45));
    EXPECT_THAT(behind(frame), Each(0));
}

TEST(Frame, TakesTheAddressesOfALongerLinkHeader) {
    LoggedPacket packet = tellingAll();
    const Bytes longer = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2, 8, 0, 0xaa, 0xaa, 0xaa, 0xaa};
    packet.linkHeader = longer;
    Frame frame;
    ASSERT_TRUE(frame.build(packet, 10));
    const Bytes bytes = frameBytes(frame);
    EXPECT_THAT(Bytes(bytes.begin(), bytes.begin() + 18),
                ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2, 0x81, 0, 0, 0x0a, 8, 0));
}

TEST(Frame, HasZeroAddressesWhereTheLinkHeaderIsShortOrMissing) {
    Frame frame;
    LoggedPacket packet = tellingAll();
    ASSERT_TRUE(frame.build(packet, 10));
    const Bytes shorter = {2, 0, 0, 0, 0x10, 1, 2};
    packet.linkHeader = shorter;
    ASSERT_TRUE(frame.build(packet, 10));
    EXPECT_THAT(Bytes(frame.data(), frame.data() + 14),
                ElementsAre(2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0, 0, 0x81, 0));
    packet.linkHeader = {};
    ASSERT_TRUE(frame.build(packet, 10));
    EXPECT_THAT(Bytes(frame.data(), frame.data() + 14),
                ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81, 0));
}

TEST(Frame, TakesTheEtherTypeFromThePacketWhereItIsNotTold) {
    LoggedPacket packet = tellingAll();
    packet.protocol = 0;
    Frame frame;
    ASSERT_TRUE(frame.build(packet, 10));
    EXPECT_EQ(+frame.record().ctrl.proto, 0x0800);
    packet.payload = ipv6;
    ASSERT_TRUE(frame.build(packet, 10));
    EXPECT_EQ(+frame.record().ctrl.proto, 0x86dd);
}

TEST(Frame, IsNotBuiltFromWhatIsNoWholeIpHeader) {
    Frame frame;
    LoggedPacket packet = tellingAll();
    packet.protocol = 0;
    const Bytes foreign(60, 0x50);
    for (const std::span<const uint8_t> payload :
         {std::span<const uint8_t>(), std::span(ipv4).first(19), std::span(ipv6).first(39),
          std::span<const uint8_t>(foreign)}) {
        packet.payload = payload;
        EXPECT_FALSE(frame.build(packet, 10)) << payload.size();
    }
    packet.payload = std::span(ipv4).first(20);
    EXPECT_TRUE(frame.build(packet, 10));
    packet.payload = std::span(ipv6).first(40);
    EXPECT_TRUE(frame.build(packet, 10));
}

TEST(Frame, IsNotBuiltWhereThePacketIsNotWhatTheKernelTookItFor) {
    Frame frame;
    LoggedPacket packet = tellingAll();
    packet.protocol = 0x86dd;
    EXPECT_FALSE(frame.build(packet, 10));
    packet.protocol = 0x0806;
    EXPECT_FALSE(frame.build(packet, 10));
}

TEST(Frame, IsNotBuiltWithoutIngressOrEgress) {
    Frame frame;
    for (const uint32_t index : {0U, 0x80000000U, 0xffffffffU}) {
        LoggedPacket packet = tellingAll();
        packet.ingress = index;
        EXPECT_FALSE(frame.build(packet, 10)) << index;
        packet = tellingAll();
        packet.mark = index;
        EXPECT_FALSE(frame.build(packet, 10)) << index;
    }
}

TEST(Frame, HoldsTheLargestPacketAndNoLargerOne) {
    const Bytes largest(65575, 0x45);
    const Bytes larger(65576, 0x45);
    Frame frame;
    LoggedPacket packet = tellingAll();
    packet.payload = larger;
    EXPECT_FALSE(frame.build(packet, 10));
    packet.payload = largest;
    ASSERT_TRUE(frame.build(packet, 10));
    EXPECT_EQ(frame.size(), 65593U);
    EXPECT_EQ(frame.data()[65592], 0x45);
}
