// SPDX-License-Identifier: MIT
// Record and frame, built from a copy and the quote in the message that refuses it.
#include "frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packets/bytes.h"

using packets::Bytes;
using packets::cut;
using packets::operator+;
using pmtud_linux::Copy;
using pmtud_linux::Frame;
using testing::Each;
using testing::ElementsAreArray;

namespace {

// The addresses, then the tag's TPID.
const Bytes kStart = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2, 0x81, 0x00};

// With four bytes of options: 28 bytes.
const Bytes kIpv4 = {0x46, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,
                     0xfd, 0x9a, 0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,
                     0x07, 0x04, 0x04, 0x00, 0xde, 0xad, 0xbe, 0xef};

// The version and the payload length decide; a copy ends after 1,500 bytes.
Bytes ipv6(uint8_t lengthHigh, uint8_t lengthLow, size_t copied) {
    return Bytes{0x60, 0, 0, 0, lengthHigh, lengthLow} + Bytes(copied - 6, 0xa5);
}

void build(Frame& frame, const Bytes& packet, int vlan = 10, const Bytes& quote = {}) {
    Copy copy;
    copy.ingress = 5;
    copy.egressVlan = 20;
    std::copy_n(kStart.begin(), 12, copy.addresses.begin());
    copy.size = packet.size();
    std::copy(packet.begin(), packet.end(), copy.bytes.begin());
    frame.build(copy, vlan, 7, quote.empty() ? packet : quote);
}

Bytes part(Frame& frame, size_t from, size_t to) {
    return {frame.data() + from, frame.data() + to};
}

}  // namespace

TEST(Frame, OfIpv4IsThePacketTaggedWithTheIngressVlan) {
    Frame frame;
    build(frame, kIpv4);
    ASSERT_EQ(frame.size(), 46U);
    EXPECT_THAT(part(frame, 0, 46),
                ElementsAreArray(kStart + Bytes{0x00, 0x0a, 0x08, 0x00} + kIpv4));
}

TEST(Frame, OfIpv6IsThePacketTaggedWithTheIngressVlan) {
    const Bytes packet = ipv6(0, 2, 42);
    Frame frame;
    build(frame, packet, 4094);
    ASSERT_EQ(frame.size(), 60U);
    EXPECT_THAT(part(frame, 0, 60),
                ElementsAreArray(kStart + Bytes{0x0f, 0xfe, 0x86, 0xdd} + packet));
    EXPECT_EQ(+frame.record().ctrl.proto, 0x86dd);
}

TEST(Frame, HasARecordThatCountsPortsFromZero) {
    Frame frame;
    build(frame, kIpv4);
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

TEST(Frame, HasZerosInPlaceOfWhatWasNotCopiedAndBeyondIt) {
    Frame frame;
    ASSERT_EQ(Frame::kCapacity, 65593U);
    build(frame, kIpv4);
    // 9,000 bytes with the header of 40.
    build(frame, ipv6(0x23, 0x00, 1500));
    EXPECT_EQ(frame.size(), 9018U);
    EXPECT_THAT(part(frame, 24, 1518), Each(0xa5));
    EXPECT_THAT(part(frame, 1518, 65593), Each(0));
    build(frame, kIpv4);
    EXPECT_EQ(frame.size(), 46U);
    EXPECT_THAT(part(frame, 46, 65593), Each(0));
}

TEST(Frame, OfTheLargestPacketFillsTheCapacity) {
    Frame frame;
    build(frame, ipv6(0xff, 0xff, 1500));
    EXPECT_EQ(frame.size(), 65593U);
}

// The kernel may have written into the options before it refused the packet, and it quotes what
// it wrote.
TEST(Frame, HasTheIpHeaderOfTheQuoteAndThePayloadOfTheCopy) {
    Bytes header = cut(kIpv4, 0, 24);
    packets::put16(header, 10, 0xaabb);
    packets::put16(header, 22, 0x080a);
    Frame frame;
    build(frame, kIpv4, 10, header + Bytes{0x11, 0x22, 0x33, 0x44});
    EXPECT_THAT(part(frame, 18, 46), ElementsAreArray(header + Bytes{0xde, 0xad, 0xbe, 0xef}));
}
