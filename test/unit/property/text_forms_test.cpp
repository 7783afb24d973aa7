// SPDX-License-Identifier: MIT
// The small text forms against printf's, over random numbers and bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "dumps.h"
#include "random.h"
#include "reference.h"

namespace {

using expected::text;
using property::Bytes;
using property::Random;

class RandomValues : public testing::TestWithParam<uint32_t> {
 protected:
    Random random{GetParam()};
};

TEST_P(RandomValues, AreWrittenInDecimalAndHexadecimal) {
    for (int round = 0; round < 20000; ++round) {
        // Of all magnitudes, and both signs.
        const auto value = static_cast<int32_t>(random.number() >> random.below(32));
        ASSERT_EQ(decHex(value), text("%d [%#x]", value, static_cast<unsigned>(value)));
    }
}

TEST_P(RandomValues, AreDumpedInTwoDigitsEach) {
    for (int round = 0; round < 2000; ++round) {
        const Bytes bytes = random.lopsidedBytes(random.below(200));
        ASSERT_EQ(hexDump(bytes.data(), bytes.size()), reference::hex(bytes.data(), bytes.size()));
    }
}

TEST_P(RandomValues, AreDumpedWithoutLeadingZerosForTheControlBlock) {
    for (int round = 0; round < 2000; ++round) {
        const Bytes bytes = random.lopsidedBytes(random.below(400));
        ASSERT_EQ(byteDump(bytes.data(), bytes.size()),
                  reference::shortHex(bytes.data(), bytes.size()));
    }
}

TEST_P(RandomValues, AreJoinedByColonsAsAnAddressInBothForms) {
    for (int round = 0; round < 20000; ++round) {
        const Bytes bytes = random.lopsidedBytes(6);
        ether_addr address;
        memcpy(&address, bytes.data(), sizeof address);
        std::ostringstream os;
        os << address;
        ASSERT_EQ(macToString(address), reference::mac(bytes.data()));
        ASSERT_EQ(os.str(), reference::shortMac(bytes.data()));
    }
}

INSTANTIATE_TEST_SUITE_P(OfSeed, RandomValues, testing::Values(6, 18, 364),
                         testing::PrintToStringParamName());

}  // namespace
