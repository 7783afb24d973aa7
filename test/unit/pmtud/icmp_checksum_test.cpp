// SPDX-License-Identifier: MIT
// Tests of the checksum routine: sums added up by hand, and its definition across all carries.
#include "icmp_checksum.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "packets.h"

namespace {

using packets::Bytes;
using packets::operator+;

static_assert(std::is_same_v<decltype(icmpChecksum), uint16_t(const uint8_t*, uint16_t)>,
              "a length of 16 bits");

struct Sum {
    const char* name;
    Bytes bytes;
    size_t length;
    uint16_t checksum;
};

class IcmpChecksumTest : public testing::TestWithParam<Sum> {};

/// At an odd address, and with no byte readable after the last.
TEST_P(IcmpChecksumTest, IsTheComplementOfTheSumFoldedOnce) {
    const packets::GuardedBytes odd(Bytes{0xEE} + GetParam().bytes);
    const packets::GuardedBytes bytes(GetParam().bytes);
    const auto length = static_cast<uint16_t>(GetParam().length);
    EXPECT_EQ(icmpChecksum(bytes.data(), length), GetParam().checksum);
    EXPECT_EQ(icmpChecksum(odd.data() + 1, length), GetParam().checksum);
}

INSTANTIATE_TEST_SUITE_P(
    Of, IcmpChecksumTest,
    testing::Values(
        // RFC 1071 section 3: the words sum to 2DDF0, folded DDF2.
        Sum{"TheExampleInRfc1071", {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 8, 0x220d},
        Sum{"AWordInNetworkOrder", {0x01, 0x02}, 2, 0xfefd}, Sum{"Nothing", {}, 0, 0xffff},
        // FFFF + FFFF + 0001 = 1FFFF, folded 10000; with that carry added back it would be FFFE.
        Sum{"ASumWhoseFoldCarries", {0xff, 0xff, 0xff, 0xff, 0x00, 0x01}, 6, 0xffff},
        // FFFF + FFFF + 0002 = 20000, folded 0002.
        Sum{"ASumWithCarries", {0xff, 0xff, 0xff, 0xff, 0x00, 0x02}, 6, 0xfffd},
        // FFFE + FFFF + 0002 = 1FFFF in any order.
        Sum{"WordsInOneOrder", {0x00, 0x02, 0xff, 0xff, 0xff, 0xfe}, 6, 0xffff},
        Sum{"WordsInAnotherOrder", {0xff, 0xfe, 0x00, 0x02, 0xff, 0xff}, 6, 0xffff},
        // An odd length adds the last byte and the next, shifted by 8: 0102 + (0304 << 8) = 30502,
        // folded 0505. RFC 1071 pads with a zero byte: FBFD.
        Sum{"ThreeBytesAndTheNext", {0x01, 0x02, 0x03, 0x04}, 3, 0xfafa},
        // AB00 << 8 = AB0000, folded 00AB; ABCD << 8 = ABCD00, folded CD00 + AB = CDAB.
        Sum{"OneByteBeforeZero", {0xab, 0x00}, 1, 0xff54},
        Sum{"OneByteAndTheNext", {0xab, 0xcd}, 1, 0x3254},
        // FFFF + (FFFF << 8) = 100FEFF, folded FEFF + 100 = FFFF.
        Sum{"ThreeBytesOfOnes", {0xff, 0xff, 0xff, 0xff}, 3, 0x0000},
        // 7FFF times FFFF = 7FFE8001, folded 8001 + 7FFE = FFFF.
        Sum{"TheGreatestEvenLength", Bytes(65534, 0xff), 65534, 0x0000}),
    [](const auto& row) { return row.param.name; });

/// Words of ones before a last word lead the sum across every carry.
TEST(IcmpChecksum, IsTheOnesComplementOfTheSumFoldedOnceForEveryLastWord) {
    for (const uint32_t ones : {0U, 1U, 2U, 33U, 100U}) {
        Bytes bytes(2 * ones + 2, 0xff);
        for (uint32_t word = 0; word <= 65535; ++word) {
            bytes[2 * ones] = static_cast<uint8_t>(word / 256);
            bytes[2 * ones + 1] = static_cast<uint8_t>(word % 256);
            const uint32_t sum = ones * 65535 + word;
            const uint32_t folded = sum % 65536 + sum / 65536;
            ASSERT_EQ(icmpChecksum(bytes.data(), static_cast<uint16_t>(bytes.size())),
                      65535 - folded % 65536)
                << ones << " words of ones and " << word;
        }
    }
}

}  // namespace
