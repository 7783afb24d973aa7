// SPDX-License-Identifier: MIT
// The dumps of random headers against what printf writes of their bytes.
#include "dumps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "random.h"
#include "reference.h"

namespace {

using property::Bytes;
using property::Random;

/// What a header inserts into a stream.
template <typename Header>
std::string inserted(const Header& header) {
    std::ostringstream os;
    os << header;
    return os.str();
}

class RandomHeaders : public testing::TestWithParam<uint32_t> {
 protected:
    Random random{GetParam()};

    /// An IPv6 header with its payload.  Its addresses have zero groups, IPv4 in them, or none.
    Bytes ipv6Packet(uint16_t payloadLength) {
        Bytes packet = random.bytes(40U + payloadLength);
        packet[4] = static_cast<uint8_t>(payloadLength / 256);
        packet[5] = static_cast<uint8_t>(payloadLength % 256);
        writeAddress(packet, 8);
        writeAddress(packet, 24);
        return packet;
    }

 private:
    void writeAddress(Bytes& packet, std::size_t offset) {
        const auto address = packet.begin() + static_cast<std::ptrdiff_t>(offset);
        const uint32_t kind = random.below(4);
        if (kind == 0) return;
        if (kind == 1) {
            for (int group = 0; group < 8; ++group) {
                if (!random.once(2)) std::fill_n(address + 2 * group, 2, uint8_t{0});
            }
            return;
        }
        std::fill_n(address, 12, uint8_t{0});
        if (kind == 2) std::fill_n(address + 10, 2, uint8_t{0xFF});
    }
};

TEST_P(RandomHeaders, OfEthernetAreDumpedAsPrintfWritesThem) {
    for (int round = 0; round < 4000; ++round) {
        const Bytes bytes = random.lopsidedBytes(18);
        const EthVlanHeader header(bytes.data());
        ASSERT_EQ(ethDump(header), reference::ethDump(bytes.data())) << "round " << round;
        ASSERT_EQ(inserted(header), reference::ethDump(bytes.data())) << "round " << round;
    }
}

TEST_P(RandomHeaders, OfIpv4AreDumpedAsPrintfWritesThem) {
    for (int round = 0; round < 3000; ++round) {
        const Bytes bytes = random.lopsidedBytes(60);
        const Ipv4Header header(bytes.data());
        ASSERT_EQ(ipv4Dump(header), reference::ipv4Dump(bytes.data())) << "round " << round;
        ASSERT_EQ(inserted(header), reference::ipv4Dump(bytes.data())) << "round " << round;
    }
}

TEST_P(RandomHeaders, OfIpv6AreDumpedAsPrintfWritesThem) {
    for (int round = 0; round < 3000; ++round) {
        const Bytes bytes = ipv6Packet(static_cast<uint16_t>(random.below(100)));
        const Ipv6Header header(bytes.data());
        ASSERT_EQ(ipv6Dump(header), reference::ipv6Dump(bytes.data())) << "round " << round;
        ASSERT_EQ(inserted(header), reference::ipv6Dump(bytes.data())) << "round " << round;
    }
}

TEST_P(RandomHeaders, OfIpv6AreDumpedWithTheWholePacketHoweverLong) {
    for (int round = 0; round < 5; ++round) {
        const Bytes bytes = ipv6Packet(static_cast<uint16_t>(65535 - random.below(1000)));
        ASSERT_EQ(ipv6Dump(Ipv6Header(bytes.data())), reference::ipv6Dump(bytes.data()))
            << "round " << round;
    }
}

TEST_P(RandomHeaders, ReadTheSameAtAnOddAddress) {
    for (int round = 0; round < 500; ++round) {
        Bytes bytes = random.bytes(61);
        const uint8_t* const odd = bytes.data() + 1;
        ASSERT_EQ(ethDump(EthVlanHeader(odd)), reference::ethDump(odd)) << "round " << round;
        ASSERT_EQ(ipv4Dump(Ipv4Header(odd)), reference::ipv4Dump(odd)) << "round " << round;
        bytes[5] = 0;
        bytes[6] = static_cast<uint8_t>(random.below(21));
        ASSERT_EQ(ipv6Dump(Ipv6Header(odd)), reference::ipv6Dump(odd)) << "round " << round;
    }
}

INSTANTIATE_TEST_SUITE_P(OfSeed, RandomHeaders, testing::Values(8021, 791, 8200),
                         testing::PrintToStringParamName());

}  // namespace
