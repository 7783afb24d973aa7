// SPDX-License-Identifier: MIT
// Tests that nothing is read behind what a platform must lay behind a frame.
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::GuardedBytes;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::recordWithEgress;
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

// From the queue's callback on.

class ReceivedBoundsTest : public EngineTest {
 protected:
    static int receive(uint8_t* frame, std::size_t length) {
        const st_pktd_shm_queue_entry_data_t record = recordWithEgress(77);
        return SHM_Wrapper_App::pkt_rx_cb(&record, frame, static_cast<int>(length));
    }
    static int receiveGuarded(const Bytes& frame) {
        const GuardedBytes guarded(frame);
        return receive(guarded.data(), frame.size());
    }
};

TEST_F(ReceivedBoundsTest, AFrameOfAnUnknownTypeReadsItsEthernetHeader) {
    const CapturedLog log(qv::DEBUG4);
    EXPECT_EQ(receiveGuarded(slice(frameOfType(0x8847), 0, 18)), 7);
}

TEST_F(ReceivedBoundsTest, AFrameOfAnotherTagProtocolReadsItsEthernetHeader) {
    Bytes frame = slice(ipv4Frame(), 0, 18);
    frame[12] = 0x88;
    frame[13] = 0xA8;
    const CapturedLog log(qv::DEBUG4);
    EXPECT_EQ(receiveGuarded(frame), 7);
}

TEST_F(ReceivedBoundsTest, AnIpv4FrameReads78BytesAndQuotesTheLastOfThem) {
    Bytes frame = slice(ipv4Frame(), 0, 78);
    const CapturedLog log(qv::DEBUG4);
    EXPECT_EQ(receiveGuarded(frame), 7);
    EXPECT_EQ(fake::syscalls().sent.at(0).bytes.back(), 39);
}

struct Quote {
    uint32_t mtu;
    uint16_t payload;
    std::size_t read;
};

class QuoteBoundsTest : public ReceivedBoundsTest, public testing::WithParamInterface<Quote> {};

// 18 bytes of Ethernet header and the quote: 8 bytes less than the message.
TEST_P(QuoteBoundsTest, AreTheLastByteThatAnIpv6FrameReads) {
    answerMtu(GetParam().mtu);
    const Bytes frame = slice(ipv6Frame(GetParam().payload), 0, GetParam().read);
    EXPECT_EQ(receiveGuarded(frame), 7);
    const Bytes& message = fake::platform().icmp6Messages.at(0).bytes;
    EXPECT_EQ(slice(message, 8, message.size()), slice(frame, 18, frame.size()));
}

INSTANTIATE_TEST_SUITE_P(Quotes, QuoteBoundsTest,
                         testing::Values(Quote{1500, 0, 58}, Quote{1500, 1, 59},
                                         Quote{576, 528, 586}, Quote{576, 529, 586},
                                         Quote{1280, 1460, 1290}, Quote{1500, 1451, 1509},
                                         Quote{1500, 1452, 1510}, Quote{9000, 8960, 1510},
                                         Quote{16383, 65535, 1510}),
                         [](const auto& row) {
                             return "Mtu" + std::to_string(row.param.mtu) + "Payload" +
                                    std::to_string(row.param.payload);
                         });

// Ever shorter frames in one buffer whose tail is zero: whatever is quoted beyond the frame is
// zero, and nothing is left of the longer frames before.

TEST_F(ReceivedBoundsTest, AnIpv4FrameOfEveryLengthIsQuotedWithZerosBehindIt) {
    const Bytes whole = ipv4Frame();
    Bytes buffer = whole;
    for (std::size_t length = whole.size(); length >= 18; --length) {
        std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(length), buffer.end(), uint8_t{0});
        ASSERT_EQ(receive(buffer.data(), length), 7) << length;
        ASSERT_FALSE(fake::syscalls().sent.empty()) << length;
        Bytes quote = slice(whole, 18, std::min<std::size_t>(length, 78));
        quote.resize(60);
        ASSERT_EQ(slice(fake::syscalls().sent.back().bytes, 8, 68), quote) << length;
    }
    EXPECT_EQ(fake::syscalls().sent.size(), 1583U);
}

/// The message for the first `length` bytes of a frame whose payload length is 05B4: of 22 bytes
/// both bytes of that are cut off, of 23 the second.
std::size_t messageSize(std::size_t length) {
    if (length <= 22) return 48;
    return length == 23 ? 40 + 0x0500 + 8 : 1500;
}

TEST_F(ReceivedBoundsTest, AnIpv6FrameOfEveryLengthIsQuotedWithZerosBehindIt) {
    const Bytes whole = ipv6Frame(1460);
    Bytes buffer = whole;
    for (std::size_t length = whole.size(); length >= 18; --length) {
        std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(length), buffer.end(), uint8_t{0});
        ASSERT_EQ(receive(buffer.data(), length), 7) << length;
        ASSERT_FALSE(fake::platform().icmp6Messages.empty()) << length;
        Bytes quote = slice(whole, 18, length);
        quote.resize(messageSize(length) - 8);
        const Bytes& message = fake::platform().icmp6Messages.back().bytes;
        ASSERT_EQ(slice(message, 8, message.size()), quote) << length;
    }
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1501U);
}

TEST_F(ReceivedBoundsTest, AFrameOfEveryLengthIsDumpedInABufferThatHoldsWhatItClaims) {
    const CapturedLog log(qv::DEBUG4);
    for (const Bytes& whole : {ipv4Frame(), ipv6Frame(100), frameOfType(0x0806)}) {
        for (std::size_t length = 18; length <= 158; ++length) {
            Bytes frame = slice(whole, 0, std::min(length, whole.size()));
            frame.resize(158);
            ASSERT_EQ(receiveGuarded(frame), 7) << length;
        }
    }
    EXPECT_EQ(fake::syscalls().sent.size(), 141U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 141U);
}

TEST_F(ReceivedBoundsTest, AShortFrameThatClaims65535BytesIsDumpedWithZerosBehindIt) {
    Bytes frame = slice(ipv6Frame(65535), 0, 58);
    frame.resize(18 + 65575);
    const CapturedLog log(qv::DEBUG);
    const GuardedBytes guarded(frame);
    EXPECT_EQ(receive(guarded.data(), 58), 7);
    EXPECT_NE(log.text().find("\ndata[65575]: [6a bc de f1 ff ff 11 40 "), std::string::npos);
    EXPECT_NE(log.text().find(" 00 00]\nVersion: 6 [0x6]\n"), std::string::npos);
}

}  // namespace
