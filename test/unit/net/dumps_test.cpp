// SPDX-License-Identifier: MIT
// The multi-line header dumps, whole, as they stand in a log.
#include "dumps.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "QVLog.h"
#include "daemon_test.h"
#include "random.h"
#include "reference.h"

namespace {

using daemon_test::Lines;
using daemon_test::logAt;
using packets::Bytes;

class Dumps : public daemon_test::FakesTest {};

Bytes padded(Bytes bytes, size_t size) {
    bytes.resize(size);
    return bytes;
}

const Bytes kEthernet = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x02, 0x00, 0x00,
                         0x00, 0x00, 0x0a, 0x81, 0x00, 0x00, 0x64, 0x08, 0x00};

const std::string kEthernetDump =
    "\n===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 02 00 00 00 00 0a 81 00 00 64 08 00]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 2:0:0:0:0:a\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 100 [0x64]\n"
    "  vlan_pcp: 0 [0]\n"
    "  vlan_dei: 0 [0]\n"
    "  vlan_id: 100 [0x64]\n"
    "proto: 2048 [0x800]\n";

const Bytes kIpv4 = padded({0x45, 0x00, 0x05, 0xDC, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xbe, 0xef,
                            0xc0, 0x00, 0x02, 0x01, 0xcb, 0x00, 0x71, 0x09, 0xa0, 0xa1, 0xa2},
                           60);

const Bytes kIpv6 = {0x6A, 0xBC, 0xDE, 0xF1, 0x00, 0x02, 0x3a, 0x40,  //
                     0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     //
                     0,    0,    0,    0,    0,    0,    0,    1,     //
                     0xfe, 0x80, 0,    0,    0,    0,    0,    0,     //
                     0,    0,    0,    0,    0,    0,    0xab, 0xcd,  //
                     0x80, 0x01};

TEST_F(Dumps, EthernetNamesEveryField) {
    EXPECT_EQ(ethDump(EthVlanHeader(kEthernet.data())), kEthernetDump);
}

TEST_F(Dumps, Ipv4NamesEveryFieldAndShowsSixtyBytesOfATwentyByteHeader) {
    EXPECT_EQ(ipv4Dump(Ipv4Header(kIpv4.data())),
              "\n===== [IPv4 DUMP] =====\n"
              "data[60]: [45 00 05 dc 12 34 40 00 40 11 be ef c0 00 02 01 cb 00 71 09 "
              "a0 a1 a2 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00]\n"
              "Version: 4 [0x4]\n"
              "IHL raw: 5 [0x5]/ IHL: 20 [0x14]\n"
              "TOS: 0 [0]\n"
              "Total Length: 1500 [0x5dc]\n"
              "Id: 4660 [0x1234]\n"
              "Flags: 2 [0x2], DF=1, MF=0\n"
              "Fragment offset: 0 [0]\n"
              "TTL: 64 [0x40]\n"
              "Protocol: 17 [0x11]\n"
              "Checksum: 48879 [0xbeef]\n"
              "Src: 192.0.2.1\n"
              "Dst: 203.0.113.9\n");
}

TEST_F(Dumps, Ipv6NamesEveryFieldAndShowsTheWholePacket) {
    EXPECT_EQ(ipv6Dump(Ipv6Header(kIpv6.data())),
              "\n===== [IPv6 DUMP] =====\n"
              "data[42]: [6a bc de f1 00 02 3a 40 20 01 0d b8 00 00 00 00 00 00 00 00 "
              "00 00 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 ab cd 80 01]\n"
              "Version: 6 [0x6]\n"
              "Traffic Class: 0 [0]\n"
              "Flow Label: 843505 [0xcdef1]\n"
              "Total Length: 2 [0x2]\n"
              "\n"
              "Next Header: 58 [0x3a]\n"
              "Hop Limit: 64 [0x40]\n"
              "Src: 2001:db8::1\n"
              "Dst: fe80::abcd\n");
}

TEST_F(Dumps, Ipv6WritesAddressesAsInetNtopDoes) {
    Bytes bytes(kIpv6.begin(), kIpv6.begin() + 40);
    bytes[5] = 0;
    std::fill(bytes.begin() + 8, bytes.end(), uint8_t{0});
    bytes[18] = bytes[19] = 0xFF;
    bytes[20] = 192;
    bytes[22] = 2;
    bytes[23] = 1;
    const std::string dump = ipv6Dump(Ipv6Header(bytes.data()));
    const std::string end = "Src: ::ffff:192.0.2.1\nDst: ::\n";
    EXPECT_EQ(dump.substr(dump.size() - end.size()), end);
}

TEST_F(Dumps, InsertionKeepsToTheDumpWhateverTheStreamsFormat) {
    std::ostringstream os;
    os << std::hex << std::uppercase << std::showbase << std::boolalpha;
    EXPECT_EQ(&(os << EthVlanHeader(kEthernet.data())), &os);
    EXPECT_EQ(os.str(), kEthernetDump);
}

TEST_F(Dumps, LogLineOfADumpEndsWithALineOfALoneCarriageReturn) {
    const CapturedLog log(qv::DEBUG1);
    QV_LOG_IN(DEBUG1, 37, "int f()") << EthVlanHeader(kEthernet.data());
    EXPECT_EQ(log.text(), "14:03:07.2 DEBUG1: [dumps_test:37 | int f()] " + kEthernetDump + "\r\n");
}

TEST_F(Dumps, SuppressedStatementReadsNoHeader) {
    const CapturedLog log(qv::DEBUG);
    QV_LOG_IN(DEBUG1, 37, "int f()") << EthVlanHeader(nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Dumps, EndAtAnAddressThatCannotBeConvertedAndTheLineGoesOut) {
    struct Cut {
        int before;
        std::string ipv4;
        std::string ipv6;
    };
    for (const auto& [before, ipv4, ipv6] :
         {Cut{0, "\nSrc: \r\n", "\nSrc: \r\n"},
          Cut{1, "\nSrc: 192.0.2.1\nDst: \r\n", "\nSrc: 2001:db8::1\nDst: \r\n"}}) {
        fake::fail("inet_ntop", {0, ENOSPC}, 1, before);
        const Lines lines4 = logAt(qv::DEBUG, [] { QV_LOG(DEBUG, 1) << Ipv4Header(kIpv4.data()); });
        EXPECT_TRUE(lines4.at(0).ends_with("Checksum: 48879 [0xbeef]" + ipv4));
        fake::fail("inet_ntop", {0, ENOSPC}, 1, before == 0 ? 0 : 1);
        const Lines lines6 = logAt(qv::DEBUG, [] { QV_LOG(DEBUG, 1) << Ipv6Header(kIpv6.data()); });
        EXPECT_TRUE(lines6.at(0).ends_with("Hop Limit: 64 [0x40]" + ipv6));
    }
}

// The small text forms.

TEST(DecHex, IsDecimalAndPrefixedLowerCaseHexadecimalOf32BitsInBrackets) {
    EXPECT_EQ(decHex(0), "0 [0]");
    EXPECT_EQ(decHex(9), "9 [0x9]");
    EXPECT_EQ(decHex(10), "10 [0xa]");
    EXPECT_EQ(decHex(48879), "48879 [0xbeef]");
    EXPECT_EQ(decHex(-1), "-1 [0xffffffff]");
    EXPECT_EQ(decHex(2147483647), "2147483647 [0x7fffffff]");
    EXPECT_EQ(decHex(-2147483647 - 1), "-2147483648 [0x80000000]");
}

constexpr std::array<uint8_t, 12> kBytes = {0x00, 0x0a, 0xff, 0x10, 0x23, 0x45,
                                            0x67, 0x89, 0xab, 0xcd, 0xef, 0x0f};

TEST(HexDump, IsTwoDigitsPerByteWithABlankBetweenThem) {
    EXPECT_EQ(hexDump(kBytes.data(), 12), "00 0a ff 10 23 45 67 89 ab cd ef 0f");
    EXPECT_EQ(hexDump(kBytes.data(), 1), "00");
    EXPECT_EQ(hexDump(kBytes.data(), 0), "");
}

TEST(ByteDump, HasNoLeadingZeros) {
    EXPECT_EQ(byteDump(kBytes.data(), 12), "0 a ff 10 23 45 67 89 ab cd ef f");
    EXPECT_EQ(byteDump(kBytes.data(), 1), "0");
    EXPECT_EQ(byteDump(kBytes.data(), 0), "");
}

TEST(EthernetAddress, HasLeadingZerosAsAStringAndNoneInAStream) {
    constexpr ether_addr kAddress = {{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0xFF}};
    std::ostringstream os;
    EXPECT_EQ(&(os << kAddress), &os);
    EXPECT_EQ(os.str(), "0:1a:2b:3c:4d:ff");
    EXPECT_EQ(macToString(kAddress), "00:1a:2b:3c:4d:ff");
}

// Random headers and numbers against what printf writes of their bytes.

template <typename Header>
std::string inserted(const Header& header) {
    std::ostringstream os;
    EXPECT_EQ(&(os << header), &os);
    return os.str();
}

class Random : public testing::Test {
 protected:
    /// Zero groups, an IPv4 address at the end, or neither.
    void writeAddress(Bytes& packet, size_t offset) {
        const auto address = packet.begin() + static_cast<ptrdiff_t>(offset);
        const uint32_t kind = random.below(4);
        for (int group = 0; kind == 1 && group < 8; ++group) {
            if (!random.once(2)) std::fill_n(address + 2 * group, 2, uint8_t{0});
        }
        if (kind >= 2) std::fill_n(address, 12, uint8_t{0});
        if (kind == 2) std::fill_n(address + 10, 2, uint8_t{0xFF});
    }

    tests::Random random{8021};
};

/// At odd addresses, too.
TEST_F(Random, HeadersAreDumpedAsPrintfWritesThem) {
    for (unsigned round = 0; round < 2000; ++round) {
        Bytes bytes = random.lopsidedBytes(61);
        const uint8_t* const start = bytes.data() + round % 2;
        ASSERT_EQ(inserted(EthVlanHeader(start)), reference::ethDump(start)) << round;
        ASSERT_EQ(inserted(Ipv4Header(start)), reference::ipv4Dump(start)) << round;

        const auto length = static_cast<uint16_t>(round % 1000 == 0 ? 65535 - random.below(1000)
                                                                    : random.below(100));
        bytes = packets::with(random.bytes(41U + length), 4U + round % 2, packets::bytesOf(length));
        writeAddress(bytes, 8U + round % 2);
        writeAddress(bytes, 24U + round % 2);
        const uint8_t* const packet = bytes.data() + round % 2;
        ASSERT_EQ(inserted(Ipv6Header(packet)), reference::ipv6Dump(packet)) << round;
    }
}

TEST_F(Random, NumbersAndBytesAreWrittenAsPrintfWritesThem) {
    for (int round = 0; round < 5000; ++round) {
        // Of all magnitudes, and both signs.
        const auto value = static_cast<int32_t>(random.number() >> random.below(32));
        ASSERT_EQ(decHex(value), reference::text("%d [%#x]", value, static_cast<unsigned>(value)));
        const Bytes bytes = random.lopsidedBytes(6 + random.below(60));
        ASSERT_EQ(hexDump(bytes.data(), bytes.size()), reference::hex(bytes.data(), bytes.size()));
        ASSERT_EQ(byteDump(bytes.data(), bytes.size()),
                  reference::shortHex(bytes.data(), bytes.size()));
        ether_addr address;
        memcpy(&address, bytes.data(), sizeof address);
        ASSERT_EQ(macToString(address), reference::mac(bytes.data()));
        ASSERT_EQ(inserted(address), reference::shortMac(bytes.data()));
    }
}

}  // namespace
