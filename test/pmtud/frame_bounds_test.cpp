// Tests that nothing is read behind what a platform must lay behind a frame.
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::GuardedBytes;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::slice;

namespace {

class FrameBoundsTest : public EngineTest {
 protected:
    bool handleGuarded(const Bytes& frame) {
        const GuardedBytes guarded(frame);
        return app.handleFrame(*guarded.data(), frame.size());
    }
};

TEST_F(FrameBoundsTest, Ipv4ReadsSeventyEightBytes) {
    EXPECT_TRUE(handleGuarded(slice(ipv4Frame(), 0, 78)));
}

TEST_F(FrameBoundsTest, Ipv4WithTheLargestClaimsReadsSeventyEightBytes) {
    Bytes frame = slice(ipv4Frame(), 0, 78);
    frame[18] = 0x4F;
    frame[20] = frame[21] = 0xFF;
    EXPECT_TRUE(handleGuarded(frame));
}

TEST_F(FrameBoundsTest, Ipv6ReadsThePacketAndNoMore) { EXPECT_TRUE(handleGuarded(ipv6Frame(100))); }

TEST_F(FrameBoundsTest, Ipv6WithoutPayloadReadsItsHeader) {
    EXPECT_TRUE(handleGuarded(ipv6Frame(0)));
}

TEST_F(FrameBoundsTest, Ipv6ThatClaims65535BytesReads1510) {
    answerMtu(9000);
    EXPECT_TRUE(handleGuarded(slice(ipv6Frame(65535), 0, 1510)));
}

TEST_F(FrameBoundsTest, Ipv6ThatClaims65535BytesReadsAsMuchAsASmallerMtuLetsItQuote) {
    answerMtu(576);
    EXPECT_TRUE(handleGuarded(slice(ipv6Frame(65535), 0, 586)));
}

TEST_F(FrameBoundsTest, OtherFrameReadsItsEthernetHeader) {
    EXPECT_FALSE(handleGuarded(slice(frameOfType(0x0806), 0, 18)));
}

TEST_F(FrameBoundsTest, DumpOfIpv4ReadsSeventyEightBytes) {
    const CapturedLog log(qv::DEBUG4);
    EXPECT_TRUE(handleGuarded(slice(ipv4Frame(), 0, 78)));
}

TEST_F(FrameBoundsTest, DumpOfIpv6ReadsTheWholePacket) {
    const CapturedLog log(qv::DEBUG4);
    EXPECT_TRUE(handleGuarded(ipv6Frame(65535)));
}

}  // namespace
