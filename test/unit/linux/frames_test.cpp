// SPDX-License-Identifier: MIT
// From a copy and the quote that refuses it to record and frame.
#include "frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "messages.h"

using pmtud_linux::Copy;
using pmtud_linux::Frame;
using testing::Each;
using testing::ElementsAreArray;

namespace {

// The addresses, then the tag's TPID.
const Bytes kStart = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2, 0x81, 0x00};

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

Bytes shortIpv4() {
    Ipv4 ipv4;
    ipv4.size = 24;
    return packet(ipv4);
}

// A packet of 9,000 bytes of which 1,500 were copied.
Bytes jumbo() {
    Bytes bytes = packet(Ipv4{.size = 1500});
    put16(bytes, 2, 9000);
    return bytes;
}

}  // namespace

TEST(Frame, OfIpv4IsThePacketTaggedWithTheIngressVlan) {
    Frame frame;
    build(frame, shortIpv4());
    ASSERT_EQ(frame.size(), 42U);
    EXPECT_THAT(part(frame, 0, 42),
                ElementsAreArray(kStart + Bytes{0x00, 0x0a, 0x08, 0x00} + shortIpv4()));
}

TEST(Frame, OfIpv6IsThePacketTaggedWithTheIngressVlan) {
    const Bytes ipv6 = packet(Ipv6{.size = 42});
    Frame frame;
    build(frame, ipv6, 4094);
    ASSERT_EQ(frame.size(), 60U);
    EXPECT_THAT(part(frame, 0, 60),
                ElementsAreArray(kStart + Bytes{0x0f, 0xfe, 0x86, 0xdd} + ipv6));
    EXPECT_EQ(+frame.record().ctrl.proto, 0x86dd);
}

TEST(Frame, HasARecordThatCountsPortsFromZero) {
    Frame frame;
    build(frame, shortIpv4());
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
    build(frame, shortIpv4());
    build(frame, jumbo());
    EXPECT_EQ(frame.size(), 9018U);
    EXPECT_THAT(part(frame, 38, 1518), Each(0xa5));
    EXPECT_THAT(part(frame, 1518, 65593), Each(0));
    build(frame, shortIpv4());
    EXPECT_EQ(frame.size(), 42U);
    EXPECT_THAT(part(frame, 42, 65593), Each(0));
}

TEST(Frame, OfTheLargestPacketFillsTheCapacity) {
    Bytes largest = packet(Ipv6{.size = 1500});
    put16(largest, 4, 65535);
    Frame frame;
    build(frame, largest);
    EXPECT_EQ(frame.size(), 65593U);
}

// The kernel may have written into the options before it refused the packet, and it quotes what
// it wrote.
TEST(Frame, HasTheIpHeaderOfTheQuoteAndThePayloadOfTheCopy) {
    Bytes copied = {0x46, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,
                    0xfd, 0x9a, 0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,
                    0x07, 0x04, 0x04, 0x00, 0xde, 0xad, 0xbe, 0xef};
    Bytes quote = copied;
    put16(quote, 10, 0xaabb);
    put16(quote, 22, 0x080a);
    Frame frame;
    build(frame, copied, 10, cut(quote, 0, 24) + Bytes{0x11, 0x22, 0x33, 0x44});
    EXPECT_THAT(part(frame, 18, 46),
                ElementsAreArray(cut(quote, 0, 24) + Bytes{0xde, 0xad, 0xbe, 0xef}));
}
