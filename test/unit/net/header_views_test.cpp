// SPDX-License-Identifier: MIT
// The header views: every field against literal bytes, at an odd address.
#include <gtest/gtest.h>

#include <array>
#include <type_traits>

#include "EthVlanHeader.h"
#include "Ipv4Header.h"
#include "Ipv6Header.h"
#include "packets.h"

namespace {

using packets::Bytes;
using packets::bytesOf;
using packets::with;

/// The bytes at an odd address.
class OddBytes {
 public:
    explicit OddBytes(const Bytes& bytes) : m_bytes(packets::operator+({0xEE}, bytes)) {}
    const uint8_t* data() const { return m_bytes.data() + 1; }

 private:
    Bytes m_bytes;
};

// Views own nothing and are read-only: a view has only its pointer, so it reads the buffer as it is
// when a field is asked for.
template <typename... Views>
constexpr bool kAreAPointerAndNothingElse =
    ((sizeof(Views) == sizeof(const uint8_t*) && std::is_trivially_copyable_v<Views> &&
      std::is_same_v<decltype(Views(nullptr).data()), const uint8_t*>)&&...);
static_assert(kAreAPointerAndNothingElse<EthVlanHeader, Ipv4Header, Ipv6Header>);

// Ethernet.

const Bytes kEthernet = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x60, 0x71, 0x82,
                         0x93, 0xa4, 0xb5, 0x81, 0x00, 0xb1, 0x23, 0x86, 0xdd};

TEST(EthVlanHeader, HasEachFieldAtItsPlace) {
    const OddBytes bytes(kEthernet);
    const EthVlanHeader header(bytes.data());
    EXPECT_EQ(header.data(), bytes.data());
    EXPECT_EQ(header.size(), 18U);
    EXPECT_EQ(header.payload(), bytes.data() + 18);
    EXPECT_EQ(static_cast<const void*>(header.dest()), bytes.data());
    EXPECT_EQ(static_cast<const void*>(header.source()), bytes.data() + 6);
    EXPECT_EQ(header.source()->ether_addr_octet[5], 0xb5);
    EXPECT_EQ(header.vlan_tpid(), 0x8100);
    EXPECT_EQ(header.vlan_tci(), 0xB123);
    EXPECT_EQ(header.proto(), 0x86DD);
}

TEST(EthVlanHeader, SplitsTheTagIntoPriorityDropEligibilityAndVlan) {
    struct Tag {
        uint16_t tci;
        int pcp;
        bool dei;
        int id;
    };
    for (const auto& [tci, pcp, dei, id] :
         {Tag{0xB123, 5, true, 0x123}, Tag{0xFFFF, 7, true, 4095}, Tag{0x0000, 0, false, 0},
          Tag{0x1000, 0, true, 0}, Tag{0xEFFF, 7, false, 4095}, Tag{0x2001, 1, false, 1},
          Tag{0x8800, 4, false, 2048}}) {
        const OddBytes bytes(with(kEthernet, 14, bytesOf(tci)));
        const EthVlanHeader header(bytes.data());
        EXPECT_EQ(header.vlan_tci(), tci);
        EXPECT_EQ(header.vlan_pcp(), pcp) << tci;
        EXPECT_EQ(header.vlan_dei(), dei) << tci;
        EXPECT_EQ(header.vlan_id(), id) << tci;
    }
}

TEST(HeaderViews, ReadNothingBeyondTheFieldAskedFor) {
    const packets::GuardedBytes ethernet(packets::cut(kEthernet, 0, 14));
    EXPECT_EQ(EthVlanHeader(ethernet.data()).vlan_tpid(), 0x8100);
    const packets::GuardedBytes ipv4({0x45});
    EXPECT_EQ(Ipv4Header(ipv4.data()).version(), 4);
    const packets::GuardedBytes ipv6({0x60, 0, 0, 0, 0x05, 0xb4});
    EXPECT_EQ(Ipv6Header(ipv6.data()).totalLength(), 1500U);
}

static_assert(std::is_same_v<decltype(EthVlanHeader(nullptr).dest()), const ether_addr*>);
static_assert(std::is_same_v<decltype(EthVlanHeader(nullptr).vlan_pcp()), uint16_t>);
static_assert(std::is_same_v<decltype(EthVlanHeader(nullptr).vlan_dei()), bool>);
static_assert(std::is_same_v<decltype(EthVlanHeader(nullptr).vlan_id()), uint16_t>);

// IPv4.

const Bytes kIpv4 = {0x4f, 0xb8, 0x05, 0xdc, 0x12, 0x34, 0x5f, 0xfe, 0x3f, 0x11,
                     0xbe, 0xef, 0xc0, 0x00, 0x02, 0x01, 0xcb, 0x00, 0x71, 0x09};

TEST(Ipv4Header, HasEachFieldAtItsPlace) {
    const OddBytes bytes(kIpv4);
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.data(), bytes.data());
    EXPECT_EQ(header.version(), 4);
    EXPECT_EQ(header.tos(), 0xb8);
    EXPECT_EQ(header.totalLength(), 1500);
    EXPECT_EQ(header.id(), 0x1234);
    EXPECT_EQ(header.ttl(), 0x3f);
    EXPECT_EQ(header.protocol(), 17);
    EXPECT_EQ(header.checksum(), 0xbeef);
    EXPECT_EQ(header.src().to_string(), "192.0.2.1");
    EXPECT_EQ(header.dst().to_string(), "203.0.113.9");
}

TEST(Ipv4Header, HasTheLargestSizeWhateverTheLengthInItsFirstByte) {
    struct First {
        uint8_t byte;
        int version;
        int words;
    };
    for (const auto& [byte, version, words] :
         {First{0x45, 4, 5}, First{0x4F, 4, 15}, First{0x40, 4, 0}, First{0xF5, 15, 5}}) {
        const Bytes bytes = with(kIpv4, 0, {byte});
        const Ipv4Header header(bytes.data());
        EXPECT_EQ(header.version(), version);
        EXPECT_EQ(header.ihlRaw(), words);
        EXPECT_EQ(header.ihl(), 4U * static_cast<unsigned>(words));
        EXPECT_EQ(header.size(), 60U);
    }
}

struct FlagWord {
    const char* name;
    uint16_t word;
    int flags;
    bool df;
    bool mf;
    int offset;
};

class FlagWordTest : public testing::TestWithParam<FlagWord> {};

TEST_P(FlagWordTest, IsSplitIntoFlagsAndAnOffsetThatIsNotMultiplied) {
    const Bytes bytes = with(kIpv4, 6, bytesOf(GetParam().word));
    const Ipv4Header header(bytes.data());
    EXPECT_EQ(header.flags(), GetParam().flags);
    EXPECT_EQ(header.df(), GetParam().df);
    EXPECT_EQ(header.mf(), GetParam().mf);
    EXPECT_EQ(header.fragmentOffset(), GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FlagWordTest,
    testing::Values(FlagWord{"DontFragmentAlone", 0x4000, 2, true, false, 0},
                    FlagWord{"MoreFragmentsAlone", 0x2000, 1, false, true, 0},
                    FlagWord{"TheReservedBitAlone", 0x8000, 4, false, false, 0},
                    FlagWord{"AllFlagsAndOne", 0xE001, 7, true, true, 1},
                    FlagWord{"TheLargestOffset", 0x1FFF, 0, false, false, 8191},
                    FlagWord{"Both", 0x5FFE, 2, true, false, 0x1FFE}),
    [](const auto& row) { return row.param.name; });

static_assert(std::is_same_v<decltype(Ipv4Header(nullptr).version()), uint8_t>);
static_assert(std::is_unsigned_v<decltype(Ipv4Header(nullptr).ihl())>);
static_assert(std::is_same_v<decltype(Ipv4Header(nullptr).flags()), uint8_t>);
static_assert(std::is_same_v<decltype(Ipv4Header(nullptr).checksum()), uint16_t>);

// IPv6.

const Bytes kIpv6 = {0x6A, 0xBC, 0xDE, 0xF1, 0x05, 0xb4, 0x06, 0x3f, 0x20, 0x01, 0x0d, 0xb8, 0, 0,
                     0,    0,    0,    0,    0,    0,    0,    0,    0,    1,    0xfe, 0x80, 0, 0,
                     0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0xab, 0xcd};

TEST(Ipv6Header, HasEachFieldAtItsPlaceAndNoTrafficClass) {
    const OddBytes bytes(kIpv6);
    const Ipv6Header header(bytes.data());
    EXPECT_EQ(header.data(), bytes.data());
    EXPECT_EQ(header.version(), 6);
    EXPECT_EQ(header.trafficClass(), 0);
    EXPECT_EQ(header.flowLabel(), 0xCDEF1U);
    EXPECT_EQ(header.payloadLength(), 1460);
    EXPECT_EQ(header.nextHeader(), 6);
    EXPECT_EQ(header.hopLimit(), 63);
    EXPECT_EQ(header.src().to_string(), "2001:db8::1");
    EXPECT_EQ(header.dst().to_string(), "fe80::abcd");
    EXPECT_EQ(header.dst().scope_id(), 0U);
}

TEST(Ipv6Header, HasATotalLengthOfItsPayloadPlusForty) {
    struct Length {
        uint16_t payload;
        unsigned total;
    };
    for (const auto& [payload, total] : {Length{0, 40}, Length{1460, 1500}, Length{65535, 65575}}) {
        const Bytes bytes = with(kIpv6, 4, bytesOf(payload));
        EXPECT_EQ(Ipv6Header(bytes.data()).totalLength(), total);
    }
}

static_assert(std::is_same_v<decltype(Ipv6Header(nullptr).version()), uint8_t>);
static_assert(std::is_same_v<decltype(Ipv6Header(nullptr).flowLabel()), uint32_t>);
static_assert(std::is_same_v<decltype(Ipv6Header(nullptr).totalLength()), uint32_t>);

// Numbers in network order.

TEST(BigEndian, StoresAndLoadsAllBytesOfANumberAndNoOther) {
    Bytes bytes(6, 0xEE);
    big_endian::store32(&bytes[1], 0xFEDCBA98);
    EXPECT_EQ(bytes, (Bytes{0xEE, 0xFE, 0xDC, 0xBA, 0x98, 0xEE}));
    EXPECT_EQ(big_endian::load32(&bytes[1]), 0xFEDCBA98U);
    EXPECT_EQ(big_endian::load16(&bytes[1]), 0xFEDCU);
    EXPECT_EQ(big_endian::load16(&bytes[3]), 0xBA98U);
    big_endian::store16(&bytes[2], 0x1234);
    EXPECT_EQ(bytes, (Bytes{0xEE, 0xFE, 0x12, 0x34, 0x98, 0xEE}));
}

}  // namespace
