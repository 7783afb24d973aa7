// SPDX-License-Identifier: MIT
// Reading netlink datagrams, link messages, logged packets, and the messages of libnftables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/if_link.h>
#include <linux/netfilter/nfnetlink.h>

#include <memory>

#include "link.h"
#include "log_message.h"
#include "messages.h"
#include "netlink.h"
#include "nft_connection.h"

using pmtud_linux::copiedFor;
using pmtud_linux::decodeLink;
using pmtud_linux::decodeLogMessage;
using pmtud_linux::errorOfMessage;
using pmtud_linux::isFromKernel;
using pmtud_linux::isLogged;
using pmtud_linux::wholeMessages;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Datagram, IsReadAsFarAsItsMessagesAreWhole) {
    constexpr uint32_t kTwoGigabytes = 0x80000000;
    struct {
        const char* what;
        uint32_t first;   // length that the message at 0 claims
        uint32_t second;  // at 20
        size_t size;
        size_t whole;
    } const cases[] = {
        {"all fit", 20, 24, 44, 44},
        {"all fit but the last lacks its padding", 17, 18, 38, 38},
        {"with padding", 17, 18, 40, 40},
        {"the second claims more than there is", 20, 25, 44, 20},
        {"the first claims two gigabytes", kTwoGigabytes, 0, 64, 0},
        {"the second claims more than two gigabytes", 20, kTwoGigabytes + 16, 64, 20},
        {"the length wraps around", 0xffffffff, 0, 64, 0},
        {"the second length wraps around", 20, 0xfffffff0, 64, 20},
        {"shorter than its header", 15, 0, 64, 0},
        {"no length", 0, 0, 64, 0},
        {"the second is shorter than its header", 20, 4, 64, 20},
        {"no header fits any more", 20, 16, 35, 20},
        {"less than a header", 16, 0, 15, 0},
        {"exactly a header", 16, 0, 16, 16},
        {"nothing", 16, 0, 0, 0},
    };
    for (const auto& one : cases) {
        alignas(nlmsghdr) std::array<char, 64> bytes{};
        memcpy(bytes.data(), &one.first, sizeof one.first);
        memcpy(&bytes[20], &one.second, sizeof one.second);
        EXPECT_EQ(wholeMessages(bytes.data(), one.size), one.whole) << one.what;
    }
}

TEST(Datagram, IsTheKernelsIfItsSenderIsAWholeAddressWithPortZero) {
    sockaddr_nl sender{};
    EXPECT_TRUE(isFromKernel(sender, sizeof sender));
    EXPECT_FALSE(isFromKernel(sender, 0));
    EXPECT_FALSE(isFromKernel(sender, sizeof sender - 1));
    sender.nl_pid = 1;
    EXPECT_FALSE(isFromKernel(sender, sizeof sender));
}

namespace {

std::optional<pmtud_linux::Link> decoded(const Netlink& message) {
    return decodeLink(message.header());
}

Netlink named(const char* name, uint32_t mtu = 1280, uint16_t hardware = ARPHRD_ETHER) {
    return linkMessage(RTM_NEWLINK, 7, hardware).text(IFLA_IFNAME, name).number(IFLA_MTU, mtu);
}

}  // namespace

TEST(LinkMessage, HasIndexNameMtuAndKindOfHardware) {
    // The lower sixteen bits of the MTU are 1,280.
    const auto link = decoded(named("bcm0.20", 66816));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->ifindex, 7U);
    EXPECT_EQ(link->name, "bcm0.20");
    EXPECT_EQ(link->mtu, 66816U);
    EXPECT_TRUE(link->ethernet);
    EXPECT_FALSE(link->gone);
    EXPECT_FALSE(link->inVrf);
    EXPECT_FALSE(decoded(named("lo", 65536, ARPHRD_LOOPBACK))->ethernet);
    EXPECT_TRUE(decoded(linkMessage(RTM_DELLINK, 7))->gone);
    EXPECT_EQ(decoded(linkMessage(RTM_DELLINK, 2147483647))->ifindex, 2147483647U);
}

// The first is what wireless drivers send, without MTU and alternative names.
TEST(LinkMessage, OfAnEventDescribesNoInterface) {
    const Netlink message = linkMessage(RTM_NEWLINK, 7);
    EXPECT_FALSE(decoded(Netlink(message).text(IFLA_IFNAME, "wlan0").add(IFLA_WIRELESS, Bytes(8))));
    EXPECT_FALSE(decoded(Netlink(message).number(IFLA_MTU, 1280)));
    EXPECT_EQ(decoded(named("wlan0", 0))->mtu, 0U);
}

// A bridge announces that a port leaves it as a removal, in its own family.
TEST(LinkMessage, OfAnotherKindOrFamilyOrCutShortDescribesNoInterface) {
    EXPECT_FALSE(decoded(linkMessage(RTM_DELLINK, 7, ARPHRD_ETHER, AF_BRIDGE)));
    EXPECT_FALSE(decoded(linkMessage(RTM_NEWADDR, 7)));
    EXPECT_FALSE(decoded(linkMessage(NLMSG_DONE, 7)));
    Netlink cutShort = linkMessage(RTM_DELLINK, 7);
    cutShort.header().nlmsg_len -= 1;
    EXPECT_FALSE(decoded(cutShort));
    EXPECT_FALSE(decoded(linkMessage(RTM_DELLINK, 7).add(IFLA_MTU, Bytes(2))));
}

TEST(LinkMessage, IsOfAVrfsPortIfItsMastersKindIsVrf) {
    const auto inVrf = [](const Bytes& own, const Bytes& master) {
        Netlink kinds = nested().add(IFLA_INFO_KIND, own);
        if (!master.empty()) kinds.add(IFLA_INFO_SLAVE_KIND, master);
        return decoded(named("bcm0.20").nest(IFLA_LINKINFO, kinds))->inVrf;
    };
    const Bytes vlan = {'v', 'l', 'a', 'n', 0};
    const Bytes vrf = {'v', 'r', 'f'};
    EXPECT_TRUE(inVrf(vlan, vrf + Bytes{0}));
    EXPECT_TRUE(inVrf(vlan, vrf));
    EXPECT_FALSE(inVrf(vlan, vrf + Bytes{'2', 0}));
    EXPECT_FALSE(inVrf(vlan, {'b', 'r', 'i', 'd', 'g', 'e', 0}));
    EXPECT_FALSE(inVrf(vrf + Bytes{0}, {}));
}

TEST(LinkMessage, HasTheAlternativeNamesAmongItsProperties) {
    const Netlink properties = nested()
                                   .text(IFLA_ALT_IFNAME, "enp1s0v20")
                                   .number(IFLA_MTU, 9000)
                                   // Without the zero that ends it.
                                   .add(IFLA_ALT_IFNAME, Bytes{'b', 'c', 'm', '0', '.', '2'});
    const auto link = decoded(named("eth0.20").nest(NLA_F_NESTED | IFLA_PROP_LIST, properties));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "eth0.20");
    EXPECT_THAT(link->alternativeNames, ElementsAre("enp1s0v20", "bcm0.2"));
    EXPECT_EQ(link->mtu, 1280U);
}

TEST(LinkMessage, HasANameThatEndsWithItsAttribute) {
    Netlink message = linkMessage(RTM_NEWLINK, 7).number(IFLA_MTU, 1280);
    // Without the zero that ends it, and padded with digits that would continue it.
    message.add(IFLA_IFNAME, Bytes{'b', 'c', 'm', '0', '.', '2'});
    std::fill_n(message.bytes.end() - 2, 2, uint8_t{'0'});
    EXPECT_EQ(decoded(message)->name, "bcm0.2");
}

namespace {

const Bytes kLinkHeader = {0x02, 0, 0, 0, 0x10, 0x01, 0x02, 0, 0, 0, 0x10, 0x02, 0x08, 0x00};

Netlink wholeLogMessage() {
    return logMessage()
        .add(NFULA_PACKET_HDR, Bytes{0x08, 0x00, 0, 0})
        .text(NFULA_PREFIX, "pmtud:20")
        .netNumber(NFULA_IFINDEX_INDEV, 5)
        .netNumber(NFULA_IFINDEX_OUTDEV, 263)
        .netNumber(NFULA_MARK, 513)
        .add(NFULA_HWLEN, Bytes{0, 14})
        .add(NFULA_HWHEADER, kLinkHeader)
        .netNumber(NFULA_SEQ, 258)
        .add(NFULA_PAYLOAD, Bytes{0x45, 0x00, 0xbe, 0xef})
        .add(999, Bytes{1, 2, 3, 4, 5});
}

// Replaces the length that the attribute of the type claims.
void claim(Netlink& message, uint16_t type, uint16_t length) {
    auto* at = static_cast<nlattr*>(mnl_nlmsg_get_payload_offset(&message.header(), 4));
    while (mnl_attr_get_type(at) != type) at = mnl_attr_next(at);
    at->nla_len = length;
}

}  // namespace

TEST(LogMessage, HasPrefixInterfacesMarkSequenceLinkHeaderAndPacket) {
    const Netlink bytes = wholeLogMessage();
    const auto message = decodeLogMessage(bytes.header());
    ASSERT_TRUE(message);
    EXPECT_EQ(message->prefix, "pmtud:20");
    EXPECT_EQ(message->ingress, 5U);
    EXPECT_EQ(message->egress, 263U);
    EXPECT_EQ(message->mark, 513U);
    EXPECT_EQ(message->sequence, 258U);
    EXPECT_THAT(message->linkHeader, testing::ElementsAreArray(kLinkHeader));
    EXPECT_THAT(message->payload, ElementsAre(0x45, 0x00, 0xbe, 0xef));
}

TEST(LogMessage, MayLackEverything) {
    const Netlink bytes = logMessage();
    const auto message = decodeLogMessage(bytes.header());
    ASSERT_TRUE(message);
    EXPECT_EQ(message->prefix, "");
    EXPECT_EQ(message->ingress, 0U);
    EXPECT_EQ(message->egress, 0U);
    EXPECT_EQ(message->mark, 0U);
    EXPECT_FALSE(message->sequence);
    EXPECT_THAT(message->linkHeader, IsEmpty());
    EXPECT_THAT(message->payload, IsEmpty());
}

TEST(LogMessage, IsAPacketOfALogGroupByItsType) {
    EXPECT_TRUE(isLogged(logMessage().header()));
    for (const int type : {NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_CONFIG,
                           NFNL_SUBSYS_QUEUE << 8 | NFULNL_MSG_PACKET, NLMSG_DONE})
        EXPECT_FALSE(isLogged(Netlink(static_cast<uint16_t>(type), 4).header())) << type;
}

TEST(LogMessage, IsNotReadIfItsHeaderIsCutShortOrANumberHasTheWrongSize) {
    Netlink bytes = logMessage();
    bytes.header().nlmsg_len -= 1;
    EXPECT_FALSE(decodeLogMessage(bytes.header()));
    for (const uint16_t type : {NFULA_IFINDEX_INDEV, NFULA_IFINDEX_OUTDEV, NFULA_MARK, NFULA_SEQ})
        for (const size_t size : {0U, 2U, 8U})
            EXPECT_FALSE(decodeLogMessage(logMessage().add(type, Bytes(size)).header()))
                << type << " " << size;
}

// libmnl reads attributes as long as they fit.
TEST(LogMessage, EndsBeforeAnAttributeThatDoesNotFit) {
    for (const uint16_t length : std::initializer_list<uint16_t>{0, 1, 3, 2000}) {
        Netlink bytes = wholeLogMessage();
        claim(bytes, NFULA_SEQ, length);
        const auto message = decodeLogMessage(bytes.header());
        ASSERT_TRUE(message);
        EXPECT_EQ(message->prefix, "pmtud:20");
        EXPECT_FALSE(message->sequence);
        EXPECT_THAT(message->payload, IsEmpty());
    }
}

// A copy of exactly that many bytes, so that a sanitizer sees every read beyond them.
TEST(LogMessage, IsNeverReadBeyondItsEnd) {
    const Netlink bytes = wholeLogMessage();
    for (uint32_t size = Netlink::kHeader; size < bytes.bytes.size() - 12; size += 4) {
        const std::unique_ptr<char[]> part(new char[size]);
        memcpy(part.get(), bytes.bytes.data(), size);
        auto* const header = reinterpret_cast<nlmsghdr*>(part.get());
        header->nlmsg_len = size;
        const auto message = decodeLogMessage(*header);
        EXPECT_TRUE(!message || message->payload.empty()) << size;
    }
}

TEST(LogMessage, HasAPrefixWithOrWithoutATerminatingZero) {
    const auto prefix = [](const Bytes& text) {
        const Netlink bytes = logMessage().add(NFULA_PREFIX, text);
        return std::string(decodeLogMessage(bytes.header())->prefix);
    };
    EXPECT_EQ(prefix({'a', 'b', 'c'}), "abc");
    EXPECT_EQ(prefix({'a', 'b', 0, 'c'}), "ab");
    EXPECT_EQ(prefix({}), "");
}

TEST(LogPrefix, OfACopyNamesTheEgressVlanAndNoOtherDoes) {
    EXPECT_EQ(copiedFor("pmtud:1"), 1);
    EXPECT_EQ(copiedFor("pmtud:20"), 20);
    EXPECT_EQ(copiedFor("pmtud:4094"), 4094);
    for (const char* prefix :
         {"", "pmtud", "pmtud:", "pmtud:0", "pmtud:4095", "pmtud:020", "pmtud:20 ", "pmtud: 20",
          "pmtud:-20", "pmtud:refused", "pmtud20", "PMTUD:20", "xpmtud:20", "20"})
        EXPECT_EQ(copiedFor(prefix), 0) << prefix;
}

TEST(NftMessage, NamesTheKernelsErrorInItsFirstLineOrAnInvalidArgument) {
    const std::string kernel = "internal:0:0-0: Error: Could not process rule: ";
    struct {
        std::string text;
        int error;
    } const cases[] = {
        {kernel + "Operation not permitted\n", EPERM},
        {kernel + "File exists\n", EEXIST},
        {kernel + "Operation not supported\n", EOPNOTSUPP},
        {kernel + "Memory page has hardware error\n", EHWPOISON},
        {"netlink: Error: cache initialization failed: Operation not permitted\n", EPERM},
        {kernel + "Device or resource busy\ndelete chain inet pmtud x\nError: x: File exists\n",
         EBUSY},
        {"Error: syntax error, unexpected newline\n", EINVAL},
        {"Error: datatype mismatch, map expects network interface name\n", EINVAL},
        {"", EINVAL}};
    for (const auto& one : cases) EXPECT_EQ(errorOfMessage(one.text), one.error) << one.text;
}

TEST(NftConnection, RefusesCommandsThatItCannotReadAndReportsWhy) {
    pmtud_linux::NftConnection connection;
    ASSERT_EQ(connection.open(), 0);
    EXPECT_EQ(connection.run("add nonsense\n"), -EINVAL);
    EXPECT_THAT(connection.problem(), testing::StartsWith("Error: syntax error"));
    EXPECT_THAT(connection.problem(), testing::Not(testing::HasSubstr("\n")));
}
