// SPDX-License-Identifier: MIT
// From a copy and the quote that refuses it to record and frame.
#include "frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using pmtud_linux::Copy;
using pmtud_linux::Frame;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Bytes = std::vector<uint8_t>;

// 24 bytes of IPv4, header and four bytes.
const Bytes kIpv4 = {0x45, 0x00, 0x00, 0x18, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xfd, 0x9a,
                     0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02, 0xde, 0xad, 0xbe, 0xef};

// 42 bytes of IPv6, header and two bytes.
const Bytes kIpv6 = {0x60, 0, 0, 0, 0, 2, 59, 64, 0xfd, 0, 0,    0x10, 0,    0,
                     0,    0, 0, 0, 0, 0, 0,  0,  0,    2, 0xfd, 0,    0,    0x20,
                     0,    0, 0, 0, 0, 0, 0,  0,  0,    0, 0,    2,    0xca, 0xfe};

Copy copyOf(const Bytes& packet) {
    Copy copy;
    copy.ingress = 5;
    copy.egressVlan = 20;
    copy.addresses = {2, 0, 0, 0, 0x10, 1, 2, 0, 0, 0, 0x10, 2};
    copy.size = packet.size();
    std::copy(packet.begin(), packet.end(), copy.bytes.begin());
    return copy;
}

// A packet of 9,000 bytes of which 1,500 were copied, all the same but for the header.
Bytes jumbo() {
    Bytes bytes(1500, 0xa5);
    std::copy_n(kIpv4.begin(), 20, bytes.begin());
    bytes[2] = 0x23;
    bytes[3] = 0x28;
    return bytes;
}

void build(Frame& frame, const Bytes& packet, int vlan = 10) {
    frame.build(copyOf(packet), vlan, 7, packet);
}

Bytes cut(Frame& frame, size_t from, size_t to) { return {frame.data() + from, frame.data() + to}; }

}  // namespace

TEST(Frame, OfIpv4IsTaggedWithTheIngressVlan) {
    Frame frame;
    build(frame, kIpv4);
    ASSERT_EQ(frame.size(), 42U);
    EXPECT_THAT(cut(frame, 0, 42),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01,  // destination
                            0x02, 0x00, 0x00, 0x00, 0x10, 0x02,  // source
                            0x81, 0x00, 0x00, 0x0a, 0x08, 0x00,  // tag, EtherType
                            0x45, 0x00, 0x00, 0x18, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xfd, 0x9a,
                            0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,  // IPv4
                            0xde, 0xad, 0xbe, 0xef));
}

TEST(Frame, OfIpv6IsTaggedWithTheIngressVlan) {
    Frame frame;
    build(frame, kIpv6, 4094);
    ASSERT_EQ(frame.size(), 60U);
    EXPECT_THAT(cut(frame, 0, 20),
                ElementsAre(0x02, 0x00, 0x00, 0x00, 0x10, 0x01, 0x02, 0x00, 0x00, 0x00, 0x10, 0x02,
                            0x81, 0x00, 0x0f, 0xfe, 0x86, 0xdd, 0x60, 0x00));
    EXPECT_THAT(cut(frame, 18, 60), ElementsAreArray(kIpv6));
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

TEST(Frame, OfIpv6HasItsEtherTypeInTheRecord) {
    Frame frame;
    build(frame, kIpv6);
    EXPECT_EQ(+frame.record().ctrl.proto, 0x86dd);
}

TEST(Frame, IsAsLongAsThePacketWithZerosInPlaceOfWhatWasNotCopied) {
    Frame frame;
    ASSERT_EQ(Frame::kCapacity, 65593U);
    build(frame, jumbo());
    EXPECT_EQ(frame.size(), 9018U);
    EXPECT_THAT(cut(frame, 38, 1518), Each(0xa5));
    EXPECT_THAT(cut(frame, 1518, 65593), Each(0));
}

TEST(Frame, OfTheLargestPacketFillsTheCapacity) {
    Bytes largest(1500, 0xa5);
    std::copy_n(kIpv6.begin(), 40, largest.begin());
    largest[4] = largest[5] = 0xff;
    Frame frame;
    build(frame, largest);
    EXPECT_EQ(frame.size(), 65593U);
}

TEST(Frame, ThatIsShorterThanTheOneBeforeIsFollowedByZeros) {
    Frame frame;
    build(frame, jumbo());
    build(frame, kIpv4);
    EXPECT_EQ(frame.size(), 42U);
    EXPECT_THAT(cut(frame, 42, 65593), Each(0));
}

TEST(Frame, ThatIsLongerThanTheOneBeforeIsWhole) {
    Frame frame;
    build(frame, kIpv4);
    build(frame, jumbo());
    EXPECT_THAT(cut(frame, 38, 1518), Each(0xa5));
    EXPECT_THAT(cut(frame, 1518, 65593), Each(0));
}

// The kernel may have written into the options before it refused the packet, and it quotes what
// it wrote.
TEST(Frame, HasTheIpHeaderOfTheQuoteAndThePayloadOfTheCopy) {
    const Bytes packet = {0x46, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,
                          0xfd, 0x9a, 0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,
                          0x07, 0x04, 0x04, 0x00, 0xde, 0xad, 0xbe, 0xef};
    const Bytes quote = {0x46, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,
                         0xaa, 0xbb, 0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,
                         0x07, 0x04, 0x08, 0x0a, 0x11, 0x22, 0x33, 0x44};
    Frame frame;
    frame.build(copyOf(packet), 10, 7, quote);
    EXPECT_THAT(cut(frame, 18, 46),
                ElementsAre(0x46, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11,  //
                            0xaa, 0xbb, 0x0a, 0x00, 0x0a, 0x02, 0x0a, 0x00, 0x14, 0x02,  //
                            0x07, 0x04, 0x08, 0x0a, 0xde, 0xad, 0xbe, 0xef));
}
