// SPDX-License-Identifier: MIT
// The multi-line header dumps, whole, as they stand in a log.
#include "dumps.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_syscalls.h"

namespace {

/// How many conversions succeed before one fails; negative: all.
int conversionsLeft = -1;

}  // namespace

extern "C" const char* __real_inet_ntop(int family, const void* from, char* to, socklen_t size);
extern "C" const char* __wrap_inet_ntop(int family, const void* from, char* to, socklen_t size) {
    if (conversionsLeft != 0) {
        if (conversionsLeft > 0) --conversionsLeft;
        return __real_inet_ntop(family, from, to, size);
    }
    errno = ENOSPC;
    return nullptr;
}

namespace {

class Dumps : public testing::Test {
 protected:
    void SetUp() override { conversionsLeft = -1; }
    void TearDown() override { conversionsLeft = -1; }
};

std::vector<uint8_t> padded(std::vector<uint8_t> bytes, std::size_t size) {
    bytes.resize(size);
    return bytes;
}

const std::vector<uint8_t> kEthernet = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x02, 0x00, 0x00,
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

const std::vector<uint8_t> kIpv4 =
    padded({0x45, 0x00, 0x05, 0xDC, 0x12, 0x34, 0x40, 0x00, 0x40, 0x11, 0xbe, 0xef,
            0xc0, 0x00, 0x02, 0x01, 0xcb, 0x00, 0x71, 0x09, 0xa0, 0xa1, 0xa2},
           60);

const std::vector<uint8_t> kIpv6 = {0x6A, 0xBC, 0xDE, 0xF1, 0x00, 0x02, 0x3a, 0x40,  //
                                    0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,     //
                                    0,    0,    0,    0,    0,    0,    0,    1,     //
                                    0xfe, 0x80, 0,    0,    0,    0,    0,    0,     //
                                    0,    0,    0,    0,    0,    0,    0xab, 0xcd,  //
                                    0x80, 0x01};

TEST_F(Dumps, EthernetNamesEveryField) {
    EXPECT_EQ(ethDump(EthVlanHeader(kEthernet.data())), kEthernetDump);
}

TEST_F(Dumps, EthernetSplitsATagOfAllOnes) {
    std::vector<uint8_t> bytes = kEthernet;
    bytes[14] = bytes[15] = 0xFF;
    const std::string dump = ethDump(EthVlanHeader(bytes.data()));
    EXPECT_NE(dump.find("vlan_tci: 65535 [0xffff]\n"
                        "  vlan_pcp: 7 [0x7]\n"
                        "  vlan_dei: 1 [0x1]\n"
                        "  vlan_id: 4095 [0xfff]\n"),
              std::string::npos)
        << dump;
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

TEST_F(Dumps, Ipv4OfAHeaderWithOptionsShowsSixtyBytesAsWell) {
    const std::vector<uint8_t> bytes =
        padded({0x46, 0xb9, 0x00, 0x18, 0xfe, 0xdc, 0xa1, 0x02, 0x01, 0x06, 0x00, 0x07,
                0x0a, 0x01, 0x02, 0x03, 0xac, 0x10, 0xff, 0xfe, 0x94, 0x04, 0x00, 0x00},
               60);
    EXPECT_EQ(ipv4Dump(Ipv4Header(bytes.data())),
              "\n===== [IPv4 DUMP] =====\n"
              "data[60]: [46 b9 00 18 fe dc a1 02 01 06 00 07 0a 01 02 03 ac 10 ff fe "
              "94 04 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00]\n"
              "Version: 4 [0x4]\n"
              "IHL raw: 6 [0x6]/ IHL: 24 [0x18]\n"
              "TOS: 185 [0xb9]\n"
              "Total Length: 24 [0x18]\n"
              "Id: 65244 [0xfedc]\n"
              "Flags: 5 [0x5], DF=0, MF=1\n"
              "Fragment offset: 258 [0x102]\n"
              "TTL: 1 [0x1]\n"
              "Protocol: 6 [0x6]\n"
              "Checksum: 7 [0x7]\n"
              "Src: 10.1.2.3\n"
              "Dst: 172.16.255.254\n");
}

TEST_F(Dumps, Ipv4WritesDfAndMfAsOneAndZeroAlone) {
    std::vector<uint8_t> bytes = kIpv4;
    bytes[6] = 0x3F;
    bytes[7] = 0xFF;
    const std::string dump = ipv4Dump(Ipv4Header(bytes.data()));
    EXPECT_NE(dump.find("Flags: 1 [0x1], DF=0, MF=1\nFragment offset: 8191 [0x1fff]\n"),
              std::string::npos)
        << dump;
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

TEST_F(Dumps, Ipv6WithoutPayloadShowsFortyBytes) {
    std::vector<uint8_t> bytes(kIpv6.begin(), kIpv6.begin() + 40);
    bytes[5] = 0;
    const std::string dump = ipv6Dump(Ipv6Header(bytes.data()));
    EXPECT_NE(dump.find("data[40]: [6a bc de f1 00 00 3a 40 20 01 0d b8 00 00 00 00 00 00 00 00 "
                        "00 00 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 ab cd]\n"),
              std::string::npos)
        << dump;
}

TEST_F(Dumps, Ipv6With1460BytesOfPayloadShows1500Bytes) {
    std::vector<uint8_t> bytes = padded(kIpv6, 1500);
    bytes[4] = 0x05;
    bytes[5] = 0xb4;
    std::string zeros;
    for (int i = 0; i < 1458; ++i) zeros += " 00";
    EXPECT_EQ(ipv6Dump(Ipv6Header(bytes.data())),
              "\n===== [IPv6 DUMP] =====\n"
              "data[1500]: [6a bc de f1 05 b4 3a 40 20 01 0d b8 00 00 00 00 00 00 00 00 "
              "00 00 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 ab cd 80 01" +
                  zeros +
                  "]\n"
                  "Version: 6 [0x6]\n"
                  "Traffic Class: 0 [0]\n"
                  "Flow Label: 843505 [0xcdef1]\n"
                  "Total Length: 1460 [0x5b4]\n"
                  "\n"
                  "Next Header: 58 [0x3a]\n"
                  "Hop Limit: 64 [0x40]\n"
                  "Src: 2001:db8::1\n"
                  "Dst: fe80::abcd\n");
}

TEST_F(Dumps, Ipv6WritesAddressesAsInetNtopDoes) {
    std::vector<uint8_t> bytes(kIpv6.begin(), kIpv6.begin() + 40);
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

TEST_F(Dumps, OfAFrameAtAnOddAddressAreTheSame) {
    alignas(8) std::array<uint8_t, 19> buffer{};
    std::copy(kEthernet.begin(), kEthernet.end(), buffer.begin() + 1);
    EXPECT_EQ(ethDump(EthVlanHeader(buffer.data() + 1)), kEthernetDump);
}

TEST_F(Dumps, ViewInsertedIntoAStreamIsItsDump) {
    std::ostringstream os;
    os << EthVlanHeader(kEthernet.data());
    EXPECT_EQ(os.str(), ethDump(EthVlanHeader(kEthernet.data())));
    std::ostringstream os4;
    os4 << Ipv4Header(kIpv4.data());
    EXPECT_EQ(os4.str(), ipv4Dump(Ipv4Header(kIpv4.data())));
    std::ostringstream os6;
    os6 << Ipv6Header(kIpv6.data());
    EXPECT_EQ(os6.str(), ipv6Dump(Ipv6Header(kIpv6.data())));
}

TEST_F(Dumps, InsertionKeepsToTheDumpWhateverTheStreamsFormat) {
    std::ostringstream os;
    os << std::hex << std::uppercase << std::showbase << std::boolalpha;
    EXPECT_EQ(&(os << EthVlanHeader(kEthernet.data())), &os);
    EXPECT_EQ(os.str(), kEthernetDump);
}

TEST_F(Dumps, InsertionsOfAllViewsReturnTheStream) {
    std::ostringstream os;
    EXPECT_EQ(&(os << Ipv4Header(kIpv4.data())), &os);
    EXPECT_EQ(&(os << Ipv6Header(kIpv6.data())), &os);
}

TEST_F(Dumps, LogLineOfADumpEndsWithALineOfALoneCarriageReturn) {
    fake::resetClock();
    const CapturedLog log(qv::DEBUG1);
    QV_LOG_IN(DEBUG1, 37, "int f()") << EthVlanHeader(kEthernet.data());
    EXPECT_EQ(log.text(), "14:03:07.2 DEBUG1: [dumps_test:37 | int f()] " + kEthernetDump + "\r\n");
}

TEST_F(Dumps, SuppressedStatementReadsNoHeader) {
    const CapturedLog log(qv::DEBUG);
    QV_LOG_IN(DEBUG1, 37, "int f()") << EthVlanHeader(nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Dumps, AddressThatCannotBeConvertedEndsTheDumpAndNotTheLine) {
    fake::resetClock();
    conversionsLeft = 0;
    const CapturedLog log(qv::DEBUG);
    EXPECT_NO_THROW(QV_LOG(DEBUG, 106) << Ipv4Header(kIpv4.data()));
    const std::string text = log.text();
    const std::string end = "Checksum: 48879 [0xbeef]\nSrc: \r\n";
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

TEST_F(Dumps, DestinationThatCannotBeConvertedLeavesTheSourceBeforeIt) {
    conversionsLeft = 1;
    const std::string dump = ipv4Dump(Ipv4Header(kIpv4.data()));
    const std::string end = "Checksum: 48879 [0xbeef]\nSrc: 192.0.2.1\nDst: ";
    EXPECT_EQ(dump.substr(dump.size() - end.size()), end);
}

TEST_F(Dumps, Ipv6SourceThatCannotBeConvertedEndsTheDump) {
    conversionsLeft = 0;
    std::string dump;
    EXPECT_NO_THROW(dump = ipv6Dump(Ipv6Header(kIpv6.data())));
    const std::string end = "Hop Limit: 64 [0x40]\nSrc: ";
    EXPECT_EQ(dump.substr(dump.size() - end.size()), end);
}

TEST_F(Dumps, Ipv6DestinationThatCannotBeConvertedLeavesTheSourceBeforeIt) {
    conversionsLeft = 1;
    const std::string dump = ipv6Dump(Ipv6Header(kIpv6.data()));
    const std::string end = "Hop Limit: 64 [0x40]\nSrc: 2001:db8::1\nDst: ";
    EXPECT_EQ(dump.substr(dump.size() - end.size()), end);
}

TEST_F(Dumps, AddressThatCannotBeConvertedThrowsOutOfItsText) {
    conversionsLeft = 0;
    EXPECT_THROW(Ipv4Header(kIpv4.data()).src().to_string(), boost::system::system_error);
    EXPECT_THROW(Ipv6Header(kIpv6.data()).src().to_string(), boost::system::system_error);
}

}  // namespace
