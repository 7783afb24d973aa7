// SPDX-License-Identifier: MIT
// Tests that nothing is read beyond what a platform must supply after a frame. What a short frame's
// answer quotes is checked for every length by fuzz/receive_fuzz.cpp.
#include "engine_test.h"

namespace engine_test {
namespace {

struct Bound {
    const char* name;
    Bytes frame;
    int32_t threshold;
};

/// The largest claims: a header of 60 bytes and a packet of 65,535.
Bytes boastfulIpv4() { return with(with(cut(ipv4Frame(), 0, 78), 18, {0x4F}), 20, {0xFF, 0xFF}); }

class FrameBoundsTest : public EngineTest, public testing::WithParamInterface<Bound> {};

TEST_P(FrameBoundsTest, AreTheLastByteThatIsRead) {
    const GuardedBytes guarded(GetParam().frame);
    const CapturedLog log(GetParam().threshold);
    EXPECT_EQ(receive(guarded.data(), GetParam().frame.size()), 7);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FrameBoundsTest,
    testing::Values(
        Bound{"OfIpv4Are78Bytes", cut(ipv4Frame(), 0, 78), qv::ERROR},
        Bound{"OfIpv4WithTheLargestClaimsAre78Bytes", boastfulIpv4(), qv::DEBUG4},
        Bound{"OfIpv6AreItsPacket", ipv6Frame(100), qv::DEBUG4},
        Bound{"OfIpv6WithoutPayloadAreItsHeader", ipv6Frame(0), qv::DEBUG4},
        Bound{"OfIpv6ThatClaims65535BytesAre1510", cut(ipv6Frame(65535), 0, 1510), qv::INFO},
        Bound{"OfTheDumpOfIpv6AreItsWholePacket", ipv6Frame(65535), qv::DEBUG4},
        Bound{"OfAnotherTypeAreTheEthernetHeader", packets::ethernet(0x8847), qv::DEBUG4},
        Bound{"OfAnotherTagProtocolAreTheEthernetHeader",
              with(packets::ethernet(0x0800), 12, {0x88, 0xA8}), qv::DEBUG4}),
    kCaseName);

}  // namespace
}  // namespace engine_test
