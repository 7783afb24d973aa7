// SPDX-License-Identifier: MIT
// What is read from the kernel's link messages.
#include "link.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>

#include <array>
#include <cstring>

using pmtud_linux::decodeLink;

namespace {

// One link message, in this machine's byte order as the kernel writes it.
class Message {
 public:
    explicit Message(uint16_t type, int index = 7, uint16_t hardware = ARPHRD_ETHER,
                     uint8_t family = AF_UNSPEC) {
        m_header = mnl_nlmsg_put_header(m_bytes.data());
        m_header->nlmsg_type = type;
        auto* const link =
            static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(m_header, sizeof(ifinfomsg)));
        link->ifi_family = family;
        link->ifi_type = hardware;
        link->ifi_index = index;
    }

    nlmsghdr* operator->() { return m_header; }
    nlmsghdr* header() { return m_header; }
    const nlmsghdr& operator*() const { return *m_header; }

    Message& named(const char* name) {
        mnl_attr_put_strz(m_header, IFLA_IFNAME, name);
        return *this;
    }
    Message& number(uint16_t type, uint32_t value) {
        mnl_attr_put_u32(m_header, type, value);
        return *this;
    }
    // Its own kind, and that of the interface that it is enslaved to.
    Message& kinds(const char* own, const char* master) {
        nlattr* const nest = mnl_attr_nest_start(m_header, IFLA_LINKINFO);
        mnl_attr_put_strz(m_header, IFLA_INFO_KIND, own);
        if (master != nullptr) mnl_attr_put_strz(m_header, IFLA_INFO_SLAVE_KIND, master);
        mnl_attr_nest_end(m_header, nest);
        return *this;
    }

 private:
    alignas(nlmsghdr) std::array<char, 512> m_bytes{};
    nlmsghdr* m_header = nullptr;
};

}  // namespace

TEST(LinkMessage, TellsIndexNameMtuAndKindOfHardware) {
    Message message(RTM_NEWLINK);
    message.named("bcm0.20").number(IFLA_MTU, 1280);
    const auto link = decodeLink(*message);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->ifindex, 7U);
    EXPECT_EQ(link->name, "bcm0.20");
    EXPECT_EQ(link->mtu, 1280U);
    EXPECT_TRUE(link->ethernet);
    EXPECT_FALSE(link->gone);
    EXPECT_FALSE(link->inVrf);
}

TEST(LinkMessage, TellsThatAnInterfaceIsGone) {
    Message message(RTM_DELLINK);
    message.named("bcm0.20");
    const auto link = decodeLink(*message);
    ASSERT_TRUE(link);
    EXPECT_TRUE(link->gone);
}

TEST(LinkMessage, TellsOtherHardwareFromEthernet) {
    Message message(RTM_NEWLINK, 7, ARPHRD_LOOPBACK);
    const auto link = decodeLink(*message);
    ASSERT_TRUE(link);
    EXPECT_FALSE(link->ethernet);
}

TEST(LinkMessage, OfABridgeAboutItsPortIsNotARemoval) {
    Message message(RTM_DELLINK, 7, ARPHRD_ETHER, AF_BRIDGE);
    message.named("bcm0.20");
    EXPECT_FALSE(decodeLink(*message));
}

TEST(LinkMessage, OfAnotherKindIsNone) {
    EXPECT_FALSE(decodeLink(*Message(RTM_NEWADDR)));
    EXPECT_FALSE(decodeLink(*Message(NLMSG_DONE)));
}

TEST(LinkMessage, TooShortForItsHeaderIsNone) {
    Message message(RTM_NEWLINK);
    message->nlmsg_len = MNL_NLMSG_HDRLEN + sizeof(ifinfomsg) - 1;
    EXPECT_FALSE(decodeLink(*message));
}

TEST(LinkMessage, WithAnMtuThatIsNoNumberIsNone) {
    Message message(RTM_NEWLINK);
    mnl_attr_put_u16(message.header(), IFLA_MTU, 1280);
    EXPECT_FALSE(decodeLink(*message));
}

TEST(LinkMessage, TellsThatTheInterfaceIsInAVrf) {
    Message message(RTM_NEWLINK);
    message.named("bcm0.20").kinds("vlan", "vrf");
    EXPECT_TRUE(decodeLink(*message)->inVrf);
}

TEST(LinkMessage, TellsAVrfFromItsPortsAndFromOtherMasters) {
    Message bridged(RTM_NEWLINK);
    bridged.named("bcm0.20").kinds("vlan", "bridge");
    EXPECT_FALSE(decodeLink(*bridged)->inVrf);
    Message vrf(RTM_NEWLINK);
    vrf.named("bcm0.20").kinds("vrf", nullptr);
    EXPECT_FALSE(decodeLink(*vrf)->inVrf);
    Message similar(RTM_NEWLINK);
    similar.named("bcm0.20").kinds("vlan", "vrf2");
    EXPECT_FALSE(decodeLink(*similar)->inVrf);
}

TEST(LinkMessage, WithAKindThatIsNotTerminatedIsReadNoFurtherThanItGoes) {
    Message message(RTM_NEWLINK);
    nlattr* const nest = mnl_attr_nest_start(message.header(), IFLA_LINKINFO);
    mnl_attr_put(message.header(), IFLA_INFO_SLAVE_KIND, 3, "vrf");
    mnl_attr_nest_end(message.header(), nest);
    EXPECT_TRUE(decodeLink(*message)->inVrf);
}
