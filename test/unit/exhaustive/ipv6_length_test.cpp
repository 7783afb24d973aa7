// SPDX-License-Identifier: MIT
// Every IPv6 payload length against the MTUs where the length of the reply turns.
#include <algorithm>

#include "exhaustive.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv6Frame;
using exhaustive::forgetCalls;

/// What is to be sent for a packet with this payload length: the 8 bytes of the message's
/// header and the packet with its own header of 40, cut at the MTU and at 1500.
std::size_t expectedLength(std::size_t payloadLength, uint32_t mtu) {
    const std::size_t whole = payloadLength + 48;
    if (mtu <= 1500) return whole < mtu ? whole : mtu;
    return whole < 1500 ? whole : 1500;
}

/// All payload lengths at one MTU, so that the MTUs run side by side.
class EveryIpv6PayloadLength : public EngineTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(EveryIpv6PayloadLength, IsQuotedAsFarAsTheMtuAllows) {
    answerMtu(GetParam());
    Bytes frame = ipv6Frame(1460);
    for (unsigned length = 0; length <= 0xFFFF; ++length) {
        frame[22] = static_cast<uint8_t>(length / 256);
        frame[23] = static_cast<uint8_t>(length % 256);
        forgetCalls();
        ASSERT_TRUE(app.sendICMP6PacketTooBig(frame.front(), frame.size())) << "length " << length;
        ASSERT_EQ(fake::platform().icmp6Messages.size(), 1U) << "length " << length;
        const Bytes& message = fake::platform().icmp6Messages[0].bytes;
        ASSERT_EQ(message.size(), expectedLength(length, GetParam())) << "length " << length;
        ASSERT_TRUE(std::equal(message.begin() + 8, message.end(), frame.begin() + 18))
            << "length " << length;
    }
}

INSTANTIATE_TEST_SUITE_P(AtMtu, EveryIpv6PayloadLength,
                         testing::Values(576, 1280, 1499, 1500, 1501, 9000, 16383),
                         testing::PrintToStringParamName());

}  // namespace
