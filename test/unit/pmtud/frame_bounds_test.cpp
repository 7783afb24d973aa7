// SPDX-License-Identifier: MIT
// Tests that nothing is read beyond what a platform must supply after a frame.
#include "engine_test.h"

namespace engine_test {
namespace {

struct Bound {
    const char* name;
    Bytes frame;
    int32_t threshold;
};

/// The largest claims: a header of 60 bytes and a packet of 65,535.
Bytes boastfulIpv4() { return with(with(slice(ipv4Frame(), 0, 78), 18, {0x4F}), 20, {0xFF, 0xFF}); }

class FrameBoundsTest : public EngineTest, public testing::WithParamInterface<Bound> {};

TEST_P(FrameBoundsTest, AreTheLastByteThatIsRead) {
    const GuardedBytes guarded(GetParam().frame);
    const CapturedLog log(GetParam().threshold);
    EXPECT_EQ(receive(guarded.data(), GetParam().frame.size()), 7);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FrameBoundsTest,
    testing::Values(
        Bound{"OfIpv4Are78Bytes", slice(ipv4Frame(), 0, 78), qv::ERROR},
        Bound{"OfIpv4WithTheLargestClaimsAre78Bytes", boastfulIpv4(), qv::DEBUG4},
        Bound{"OfIpv6AreItsPacket", ipv6Frame(100), qv::DEBUG4},
        Bound{"OfIpv6WithoutPayloadAreItsHeader", ipv6Frame(0), qv::DEBUG4},
        Bound{"OfIpv6ThatClaims65535BytesAre1510", slice(ipv6Frame(65535), 0, 1510), qv::INFO},
        Bound{"OfTheDumpOfIpv6AreItsWholePacket", ipv6Frame(65535), qv::DEBUG4},
        Bound{"OfAnotherTypeAreTheEthernetHeader", packets::ethernet(0x8847), qv::DEBUG4},
        Bound{"OfAnotherTagProtocolAreTheEthernetHeader",
              with(packets::ethernet(0x0800), 12, {0x88, 0xA8}), qv::DEBUG4}),
    kCaseName);

// Ever shorter frames in one buffer whose tail is zero: whatever is quoted beyond the frame is
// zero, and nothing is left of the longer frames before.

class ShorteningTest : public EngineTest {
 protected:
    /// Calls `check` with each length from the whole frame's down to 18.
    template <typename Check>
    void shorten(const Bytes& whole, Check check) {
        Bytes buffer = whole;
        for (size_t length = whole.size(); length >= 18; --length) {
            std::fill(buffer.begin() + static_cast<ptrdiff_t>(length), buffer.end(), 0);
            fake::syscalls().sent.clear();
            fake::platform().icmp6Messages.clear();
            ASSERT_EQ(receive(buffer.data(), length), 7) << length;
            ASSERT_EQ(messages(), 1U) << length;
            check(length);
            if (HasFailure()) return;
        }
    }
};

TEST_F(ShorteningTest, AnIpv4FrameOfEveryLengthIsQuotedWithZerosAfterIt) {
    const Bytes whole = ipv4Frame();
    shorten(whole, [&](size_t length) {
        Bytes quote = slice(whole, 18, std::min<size_t>(length, 78));
        quote.resize(60);
        EXPECT_EQ(slice(sent4().bytes, 8, 68), quote) << length;
    });
}

TEST_F(ShorteningTest, AnIpv6FrameOfEveryLengthIsQuotedWithZerosAfterIt) {
    const Bytes whole = ipv6Frame(1460);
    shorten(whole, [&](size_t length) {
        // Its payload length is 05B4; of 22 bytes both are cut off, of 23 the second.
        const size_t size = length <= 22 ? 48 : length == 23 ? 40 + 0x0500 + 8 : 1500;
        Bytes quote = slice(whole, 18, length);
        quote.resize(size - 8);
        EXPECT_EQ(slice(sent6().bytes, 8, sent6().bytes.size()), quote) << length;
    });
}

TEST_F(ShorteningTest, AFrameOfEveryLengthIsDumpedInABufferThatHoldsWhatItClaims) {
    const CapturedLog log(qv::DEBUG4);
    for (const Bytes& whole : {ipv4Frame(), ipv6Frame(100), frameOfType(0x0806)}) {
        for (size_t length = 18; length <= 158; ++length) {
            Bytes frame = slice(whole, 0, std::min(length, whole.size()));
            frame.resize(158);
            const GuardedBytes guarded(frame);
            ASSERT_EQ(receive(guarded.data(), 158), 7) << length;
        }
    }
    EXPECT_EQ(messages(), 282U);
}

TEST_F(ShorteningTest, AShortFrameThatClaims65535BytesIsDumpedWithZerosAfterIt) {
    Bytes frame = slice(ipv6Frame(65535), 0, 58) + Bytes(65535);
    const CapturedLog log(qv::DEBUG);
    EXPECT_EQ(receive(frame.data(), 58), 7);
    EXPECT_NE(log.text().find("\ndata[65575]: [6a bc de f1 ff ff 11 40 "), std::string::npos);
    EXPECT_NE(log.text().find(" 00 00]\nVersion: 6 [0x6]\n"), std::string::npos);
}

}  // namespace
}  // namespace engine_test
