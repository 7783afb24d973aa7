// SPDX-License-Identifier: MIT
// How far netlink datagrams are believed.
#include "netlink.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <array>
#include <cstring>

using pmtud_linux::wholeMessages;

namespace {

/// A datagram of 64 bytes in which messages of these lengths stand at these places.
class Datagram {
 public:
    Datagram& at(size_t place, uint32_t claimed) {
        std::memcpy(&m_bytes[place], &claimed, sizeof claimed);
        return *this;
    }
    size_t whole(size_t length) const { return wholeMessages(m_bytes.data(), length); }

 private:
    alignas(nlmsghdr) std::array<char, 64> m_bytes{};
};

}  // namespace

TEST(WholeMessages, AreAllThatFit) { EXPECT_EQ(Datagram().at(0, 20).at(20, 24).whole(44), 44U); }

TEST(WholeMessages, EndBeforeOneThatClaimsMoreThanThereIs) {
    EXPECT_EQ(Datagram().at(0, 20).at(20, 25).whole(44), 20U);
}

TEST(WholeMessages, EndBeforeOneThatClaimsTwoGigabytes) {
    EXPECT_EQ(Datagram().at(0, 0x80000000).whole(64), 0U);
    EXPECT_EQ(Datagram().at(0, 20).at(20, 0x90000000).whole(64), 20U);
}

TEST(WholeMessages, EndBeforeOneWhoseLengthWrapsAround) {
    EXPECT_EQ(Datagram().at(0, 0xFFFFFFFF).whole(64), 0U);
    EXPECT_EQ(Datagram().at(0, 20).at(20, 0xFFFFFFF0).whole(64), 20U);
}

TEST(WholeMessages, EndBeforeOneShorterThanItsHeader) {
    EXPECT_EQ(Datagram().at(0, 15).whole(64), 0U);
    EXPECT_EQ(Datagram().at(0, 0).whole(64), 0U);
    EXPECT_EQ(Datagram().at(0, 20).at(20, 4).whole(64), 20U);
}

TEST(WholeMessages, EndWhereNoHeaderFitsAnyMore) {
    EXPECT_EQ(Datagram().at(0, 20).at(20, 16).whole(35), 20U);
    EXPECT_EQ(Datagram().whole(15), 0U);
    EXPECT_EQ(Datagram().whole(0), 0U);
}

TEST(WholeMessages, MayBePaddedExceptTheLast) {
    EXPECT_EQ(Datagram().at(0, 17).at(20, 18).whole(40), 40U);
    EXPECT_EQ(Datagram().at(0, 17).at(20, 18).whole(38), 38U);
}
