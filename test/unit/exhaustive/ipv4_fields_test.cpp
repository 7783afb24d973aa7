// SPDX-License-Identifier: MIT
// Every first byte and every flag word of an IPv4 header.
#include <array>

#include "Ipv4Header.h"
#include "exhaustive.h"

namespace {

/// A header whose other bits are all 0 or all 1, so that a bit taken from beside a field shows.
class EveryIpv4Header : public testing::TestWithParam<int> {
 protected:
    EveryIpv4Header() { bytes.fill(static_cast<uint8_t>(GetParam())); }

    std::array<uint8_t, 60> bytes;
    const Ipv4Header header{bytes.data()};
};

TEST_P(EveryIpv4Header, GivesVersionAndHeaderLengthOfItsFirstByte) {
    for (unsigned version = 0; version <= 15; ++version) {
        for (unsigned words = 0; words <= 15; ++words) {
            bytes[0] = static_cast<uint8_t>(version * 16 + words);
            ASSERT_EQ(header.version(), version) << "first byte " << int{bytes[0]};
            ASSERT_EQ(header.ihlRaw(), words) << "first byte " << int{bytes[0]};
            ASSERT_EQ(header.ihl(), words * 4) << "first byte " << int{bytes[0]};
            ASSERT_EQ(header.size(), 60U) << "first byte " << int{bytes[0]};
        }
    }
}

TEST_P(EveryIpv4Header, GivesFlagsAndOffsetOfItsFlagWord) {
    for (unsigned flags = 0; flags <= 7; ++flags) {
        for (unsigned offset = 0; offset <= 8191; ++offset) {
            bytes[6] = static_cast<uint8_t>(flags * 32 + offset / 256);
            bytes[7] = static_cast<uint8_t>(offset % 256);
            ASSERT_EQ(header.flags(), flags) << "offset " << offset;
            ASSERT_EQ(header.df(), flags == 2 || flags == 3 || flags == 6 || flags == 7)
                << "flags " << flags << ", offset " << offset;
            ASSERT_EQ(header.mf(), flags == 1 || flags == 3 || flags == 5 || flags == 7)
                << "flags " << flags << ", offset " << offset;
            ASSERT_EQ(header.fragmentOffset(), offset) << "flags " << flags;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Among, EveryIpv4Header, testing::Values(0x00, 0xFF),
                         [](const auto& row) { return row.param == 0 ? "Zeros" : "Ones"; });

}  // namespace
