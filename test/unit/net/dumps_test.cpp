// SPDX-License-Identifier: MIT
// The header dumps, whole, as a log shows them, and the text forms of numbers, bytes and addresses.
// fuzz/headers_fuzz.cpp compares many more with what printf writes.
#include "dumps.h"

#include <array>
#include <cerrno>
#include <sstream>

#include "daemon_test.h"

namespace {

using daemon_test::logAt;
using packets::Bytes;
using packets::operator+;

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
    const Bytes mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 1};
    const Bytes bytes = packets::with(kIpv6, 8, mapped + Bytes(16));
    EXPECT_TRUE(ipv6Dump(Ipv6Header(bytes.data())).ends_with("Src: ::ffff:192.0.2.1\nDst: ::\n"));
}

TEST_F(Dumps, InsertionKeepsToTheDumpWhateverTheStreamsFormat) {
    std::ostringstream os;
    os << std::hex << std::uppercase << std::showbase << std::boolalpha;
    EXPECT_EQ(&(os << EthVlanHeader(kEthernet.data())), &os);
    EXPECT_EQ(os.str(), kEthernetDump);
}

TEST_F(Dumps, EndAtAnAddressThatCannotBeConvertedAndTheLineIsWritten) {
    const auto endOf = [](const auto& header, int failing) {
        fake::fail("inet_ntop", {0, ENOSPC}, 1, failing);
        const std::string line = logAt(qv::DEBUG, [&] { QV_LOG(DEBUG, 1) << header; }).at(0);
        return line.substr(line.find("]\nSrc: ") + 2);
    };
    EXPECT_EQ(endOf(Ipv4Header(kIpv4.data()), 0), "Src: \r\n");
    EXPECT_EQ(endOf(Ipv4Header(kIpv4.data()), 1), "Src: 192.0.2.1\nDst: \r\n");
    EXPECT_EQ(endOf(Ipv6Header(kIpv6.data()), 0), "Src: \r\n");
    EXPECT_EQ(endOf(Ipv6Header(kIpv6.data()), 1), "Src: 2001:db8::1\nDst: \r\n");
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

TEST(HexDump, IsTwoDigitsPerByteSeparatedByBlanks) {
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

}  // namespace
