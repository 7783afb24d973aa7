// SPDX-License-Identifier: MIT
// Tests of the IPv6 reply: its message, its interface, and what does not keep it from being sent.
// The lines and calls of the whole path, and its failures, are in unit/daemon.
#include "engine_test.h"

namespace engine_test {
namespace {

class PacketTooBigTest : public EngineTest {};

TEST_F(PacketTooBigTest, GoesToThePacketsSourceWithoutAScopeEvenIfItIsLinkLocal) {
    const Bytes linkLocal = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    reply6(with(ipv6Frame(8), 26, linkLocal + Bytes(16)));
    EXPECT_EQ(texts().at(1), " PMTUD-Prot:    From: fe80::1");
    EXPECT_EQ(texts().at(2), " PMTUD-Prot:    To: ::");
    EXPECT_EQ(last(texts()), " PMTUD-Prot: ICMPv6 message sent to source fe80::1");
    sockaddr_in6 expected{};
    expected.sin6_family = 10;
    memcpy(&expected.sin6_addr, linkLocal.data(), 16);
    EXPECT_EQ(memcmp(&sent6().to, &expected, sizeof expected), 0);
}

struct Length {
    uint16_t mtu;
    uint16_t payload;
    size_t message;
};

class MessageLengthTest : public EngineTest, public testing::WithParamInterface<Length> {};

/// 18 bytes of Ethernet header and the quote are all that is read of the frame.
TEST_P(MessageLengthTest, IsTheLeastOfMtu1500AndPacketWithHeader) {
    const auto [mtu, payload, length] = GetParam();
    answerMtu(mtu);
    const Bytes frame = cut(ipv6Frame(payload), 0, length + 10);
    const GuardedBytes guarded(frame);
    EXPECT_EQ(receive(guarded.data(), frame.size()), 7);
    EXPECT_EQ(sent6().bytes,
              (Bytes{2, 0, 0, 0, 0, 0} + bytesOf(mtu) + cut(frame, 18, frame.size())));
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, MessageLengthTest,
    testing::Values(Length{1500, 0, 48}, Length{1500, 1, 49}, Length{1500, 1451, 1499},
                    Length{1500, 1452, 1500}, Length{1500, 1453, 1500}, Length{576, 527, 575},
                    Length{576, 528, 576}, Length{576, 529, 576}, Length{576, 65535, 576},
                    Length{1280, 1460, 1280}, Length{1499, 65535, 1499}, Length{1501, 65535, 1500},
                    Length{9000, 8960, 1500}, Length{16383, 8, 56}, Length{16383, 65535, 1500}),
    [](const auto& row) {
        return "Mtu" + std::to_string(row.param.mtu) + "Payload" +
               std::to_string(row.param.payload);
    });

TEST_F(PacketTooBigTest, OfAShortFrameThatClaims65535BytesQuotesTheZerosAfterIt) {
    const Bytes frame = cut(ipv6Frame(65535), 0, 58) + Bytes(1500);
    EXPECT_TRUE(app.sendICMP6PacketTooBig(frame.front(), 58));
    EXPECT_EQ(cut(sent6().bytes, 48, 1500), Bytes(1452));
}

TEST_F(PacketTooBigTest, SendsNothingOfAnEarlierFrame) {
    reply6(ipv6Frame(1460));
    reply6(ipv6Frame(0) + Bytes(1452));
    EXPECT_EQ(fake::platform().icmp6Messages.at(1).bytes,
              (Bytes{2, 0, 0, 0, 0, 0, 0x05, 0xdc} + cut(ipv6Frame(0), 18, 58)));
}

struct Tag {
    uint16_t tci;
    const char* interface;
};

class TagTest : public EngineTest, public testing::WithParamInterface<Tag> {};

TEST_P(TagTest, ChoosesTheInterfaceByItsVlanAlone) {
    const std::string name = GetParam().interface;
    EXPECT_TRUE(reply6(with(ipv6Frame(8), 14, bytesOf(GetParam().tci))));
    EXPECT_EQ(fake::syscalls().calls.at(0), "if_nametoindex(\"" + name + "\")");
    EXPECT_EQ(fake::platform().calls.at(2), "arpd_icmp6_socket_create(\"" + name + "\")");
}

INSTANTIATE_TEST_SUITE_P(Tags, TagTest,
                         testing::Values(Tag{0x0000, "bcm0.0"}, Tag{0x0001, "bcm0.1"},
                                         Tag{0xF001, "bcm0.1"}, Tag{0x0FFE, "bcm0.4094"},
                                         Tag{0x1FFE, "bcm0.4094"}, Tag{0xE800, "bcm0.2048"},
                                         Tag{0xFFFF, "bcm0.4095"}),
                         [](const auto& row) { return std::to_string(row.param.tci); });

struct Index {
    uint32_t index;
    const char* text;
};

class InterfaceIndexTest : public EngineTest, public testing::WithParamInterface<Index> {};

TEST_P(InterfaceIndexTest, IsPassedOnAsItIsAndLoggedAsSigned) {
    fake::syscalls().ifNameToIndex = [](const std::string&) { return GetParam().index; };
    const Lines lines = logAt(qv::DEBUG, [this] { EXPECT_TRUE(reply6(ipv6Frame(8))); });
    EXPECT_TRUE(lines.at(4).ends_with(std::string("] ifindex: ") + GetParam().text + "\r\n"));
    EXPECT_EQ(sent6().ifindex, GetParam().index);
}

// 0: there is no such interface.
INSTANTIATE_TEST_SUITE_P(Indexes, InterfaceIndexTest,
                         testing::Values(Index{0, "0"}, Index{70000, "70000"},
                                         Index{2147483647, "2147483647"}, Index{4294967295U, "-1"}),
                         [](const auto& row) { return std::to_string(row.param.index); });

class ChangedPacketTest : public EngineTest, public testing::WithParamInterface<Change> {};

TEST_P(ChangedPacketTest, IsAnsweredAndQuotedAsItIs) {
    const Bytes frame = with(ipv6Frame(8), GetParam().offset, {GetParam().value});
    EXPECT_TRUE(reply6(frame));
    EXPECT_EQ(sent6().bytes, (Bytes{2, 0, 0, 0, 0, 0, 0x05, 0xdc} + cut(frame, 18, 66)));
}

INSTANTIATE_TEST_SUITE_P(
    Changes, ChangedPacketTest,
    testing::Values(Change{"AnotherTagProtocol", 12, 0x88}, Change{"AnotherEtherType", 16, 0x08},
                    Change{"AnotherVersion", 18, 0x45}, Change{"Icmpv6", 24, 58},
                    Change{"AFragment", 24, 44}, Change{"NoHopLimit", 25, 0},
                    Change{"AMulticastSource", 26, 0xFF}, Change{"AMulticastDestination", 42, 0xFF},
                    Change{"TheLastByte", 65, 0xFF}),
    kCaseName);

TEST_F(PacketTooBigTest, IsBuiltOnTheStackOfTheCall) {
    const char above = 0;
    uintptr_t stackAtSend = 0;
    fake::platform().icmp6Send = [&stackAtSend] {
        const char here = 0;
        stackAtSend = reinterpret_cast<uintptr_t>(&here);
        return 0;
    };
    reply6(ipv6Frame(1460));
    // The stack grows downwards on all machines that this runs on.
    const auto handedOver = reinterpret_cast<uintptr_t>(sent6().handedOver);
    EXPECT_GT(handedOver, stackAtSend);
    EXPECT_LT(handedOver, reinterpret_cast<uintptr_t>(&above));
}

}  // namespace
}  // namespace engine_test
