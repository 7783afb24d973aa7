// SPDX-License-Identifier: MIT
// The checksum routine against its definition, over random messages.
#include <gtest/gtest.h>

#include "icmp_checksum.h"
#include "random.h"

namespace {

using property::Bytes;
using property::Random;

/// The sum of the big-endian words of `length` bytes; an odd one counts the word that begins at
/// the last byte 256 times.
uint64_t sumOfWords(const Bytes& bytes, std::size_t length) {
    uint64_t sum = 0;
    for (std::size_t i = 0; i + 1 < length; i += 2) sum += bytes[i] * 256U + bytes[i + 1];
    if (length % 2 == 1) sum += (bytes[length - 1] * 256U + bytes[length]) * 256ULL;
    return sum;
}

/// The words' sum with the upper half added to the lower one time.
uint64_t foldedOnce(uint64_t sum) { return sum % 65536 + sum / 65536; }

uint64_t foldedWhole(uint64_t sum) {
    while (sum > 65535) sum = foldedOnce(sum);
    return sum;
}

uint16_t checksum(const Bytes& bytes, std::size_t length) {
    return icmpChecksum(bytes.data(), static_cast<uint16_t>(length));
}

/// An even length, and a message of it with the checksum's field, bytes 2 and 3, at 0.
Bytes evenMessage(Random& random) {
    Bytes message = random.lopsidedBytes(4 + 2 * random.below(750));
    message[2] = 0;
    message[3] = 0;
    return message;
}

class RandomMessages : public testing::TestWithParam<uint32_t> {
 protected:
    Random random{GetParam()};
};

TEST_P(RandomMessages, HaveTheOnesComplementOfTheirSumFoldedOnceAsChecksum) {
    unsigned lostCarries = 0;
    for (int round = 0; round < 4000; ++round) {
        const std::size_t length = random.below(1600);
        const Bytes bytes = random.lopsidedBytes(length + 1);
        const uint64_t folded = foldedOnce(sumOfWords(bytes, length));
        ASSERT_EQ(checksum(bytes, length), 65535 - folded % 65536)
            << "round " << round << ", length " << length;
        if (folded > 65535) ++lostCarries;
    }
    // Otherwise the carry that the fold loses was never there.
    EXPECT_GT(lostCarries, 0U);
}

TEST_P(RandomMessages, OfUpTo65535BytesHaveTheOnesComplementOfTheirSumFoldedOnceAsChecksum) {
    for (int round = 0; round < 20; ++round) {
        const std::size_t length = 65535 - random.below(2000);
        const Bytes bytes = random.lopsidedBytes(length + 1);
        // An odd length's last word can carry the routine's sum no further than 32 bits.
        ASSERT_LT(sumOfWords(bytes, length), 4294967296ULL);
        ASSERT_EQ(checksum(bytes, length), 65535 - foldedOnce(sumOfWords(bytes, length)) % 65536)
            << "round " << round << ", length " << length;
    }
}

TEST_P(RandomMessages, VerifyByTheRuleOfRfc1071WhereOneFoldIsEnough) {
    unsigned verified = 0;
    for (int round = 0; round < 4000; ++round) {
        Bytes message = evenMessage(random);
        const bool oneFoldIsEnough = foldedOnce(sumOfWords(message, message.size())) <= 65535;
        if (!oneFoldIsEnough) continue;
        const uint16_t value = checksum(message, message.size());
        message[2] = static_cast<uint8_t>(value / 256);
        message[3] = static_cast<uint8_t>(value % 256);
        ASSERT_EQ(foldedWhole(sumOfWords(message, message.size())), 65535U) << "round " << round;
        ++verified;
    }
    EXPECT_GT(verified, 3000U);
}

TEST_P(RandomMessages, ChangeTheirChecksumWithAnyBit) {
    for (int round = 0; round < 4000; ++round) {
        const std::size_t length = 1 + random.below(1600);
        Bytes bytes = random.lopsidedBytes(length + 1);
        const uint16_t before = checksum(bytes, length);
        const std::size_t place = random.below(static_cast<uint32_t>(length));
        bytes[place] ^= static_cast<uint8_t>(1U << random.below(8));
        ASSERT_NE(checksum(bytes, length), before)
            << "round " << round << ", byte " << place << " of " << length;
    }
}

TEST_P(RandomMessages, HaveAChecksumThatNoByteBehindAnEvenLengthChanges) {
    for (int round = 0; round < 1000; ++round) {
        const std::size_t length = 2 * random.below(750);
        Bytes bytes = random.bytes(length + 1);
        const uint16_t before = checksum(bytes, length);
        bytes[length] ^= 0xFF;
        ASSERT_EQ(checksum(bytes, length), before) << "round " << round << ", length " << length;
    }
}

INSTANTIATE_TEST_SUITE_P(OfSeed, RandomMessages, testing::Values(1071, 792, 1191, 4443),
                         testing::PrintToStringParamName());

}  // namespace
