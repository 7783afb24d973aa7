// SPDX-License-Identifier: MIT
// Every tag control word: its three fields, the interface of the IPv6 reply, and its log.
#include "EthVlanHeader.h"
#include "exhaustive.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv6Frame;
using engine_test::Lines;
using exhaustive::forgetCalls;
using expected::text;

/// A tag control word made of its fields.
struct Tag {
    unsigned pcp;
    unsigned dei;
    unsigned id;

    unsigned word() const { return pcp * 8192 + dei * 4096 + id; }
    uint8_t high() const { return static_cast<uint8_t>(pcp * 32 + dei * 16 + id / 256); }
    uint8_t low() const { return static_cast<uint8_t>(id % 256); }
};

/// All tag control words of one priority, so that the eight run side by side.
class EveryTag : public EngineTest, public testing::WithParamInterface<unsigned> {
 protected:
    template <typename Check>
    void forEachTag(Check check) {
        for (unsigned dei = 0; dei <= 1; ++dei) {
            for (unsigned id = 0; id <= 4095; ++id) {
                const Tag tag{GetParam(), dei, id};
                frame[14] = tag.high();
                frame[15] = tag.low();
                forgetCalls();
                check(tag);
                if (HasFatalFailure()) return;
            }
        }
    }

    Bytes frame = ipv6Frame(0);
};

TEST_P(EveryTag, IsSplitIntoPriorityDropEligibleIndicatorAndVlan) {
    const EthVlanHeader eth(frame.data());
    forEachTag([&](const Tag& tag) {
        ASSERT_EQ(eth.vlan_tci(), tag.word());
        ASSERT_EQ(eth.vlan_pcp(), tag.pcp) << "tag " << tag.word();
        ASSERT_EQ(eth.vlan_dei(), tag.dei == 1) << "tag " << tag.word();
        ASSERT_EQ(eth.vlan_id(), tag.id) << "tag " << tag.word();
    });
}

TEST_P(EveryTag, ChoosesTheInterfaceOfTheIpv6ReplyByItsVlanAlone) {
    forEachTag([&](const Tag& tag) {
        ASSERT_TRUE(reply6(frame)) << "tag " << tag.word();
        ASSERT_EQ(fake::syscalls().calls,
                  Lines({text("if_nametoindex(\"bcm0.%u\")", tag.id), "close(606)"}));
        ASSERT_EQ(fake::platform().calls,
                  Lines({"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)",
                         text("arpd_icmp6_socket_create(\"bcm0.%u\")", tag.id),
                         "arpd_ipv6_pkt_send(606, 7)"}));
    });
}

TEST_P(EveryTag, IsNamedToTheDebugProcess) {
    forEachTag([&](const Tag& tag) {
        handle(frame);
        ASSERT_EQ(fake::platform().debugLines.size(), 9U) << "tag " << tag.word();
        ASSERT_EQ(fake::platform().debugLines[1].text,
                  text(" PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, "
                       "Dest MAC: 00:1a:2b:3c:4d:5e, Rx VLAN: %u, Tx egress: 77",
                       tag.id));
    });
}

TEST_P(EveryTag, IsShownInTheDumpAndTheLinesOfTheIpv6Reply) {
    forEachTag([&](const Tag& tag) {
        const CapturedLog log(3);
        reply6(frame);
        ASSERT_EQ(
            log.text(),
            text("14:03:07.2 DEBUG: [PMTUDApp:202 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                 "uint8_t&, size_t)] \n"
                 "===== [ETH DUMP] =====\n"
                 "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 %02x %02x 86 dd]\n"
                 "dest: 0:1a:2b:3c:4d:5e\n"
                 "source: 0:0:5e:0:53:1\n"
                 "vlan_tpid: 33024 [0x8100]\n"
                 "vlan_tci: %u [%#x]\n"
                 "  vlan_pcp: %u [%#x]\n"
                 "  vlan_dei: %u [%#x]\n"
                 "  vlan_id: %u [%#x]\n"
                 "proto: 34525 [0x86dd]\n"
                 "\r\n",
                 tag.high(), tag.low(), tag.word(), tag.word(), tag.pcp, tag.pcp, tag.dei, tag.dei,
                 tag.id, tag.id) +
                "14:03:07.2 DEBUG: [PMTUDApp:205 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                "uint8_t&, size_t)] \n"
                "===== [IPv6 DUMP] =====\n"
                "data[40]: [6a bc de f1 00 00 11 40 20 01 0d b8 00 00 00 10 00 00 00 00 00 00 00 "
                "0a 20 01 0d b8 00 00 00 20 00 00 00 00 00 00 00 14]\n"
                "Version: 6 [0x6]\n"
                "Traffic Class: 0 [0]\n"
                "Flow Label: 843505 [0xcdef1]\n"
                "Total Length: 0 [0]\n"
                "\n"
                "Next Header: 17 [0x11]\n"
                "Hop Limit: 64 [0x40]\n"
                "Src: 2001:db8:0:10::a\n"
                "Dst: 2001:db8:0:20::14\n"
                "\r\n" +
                text("14:03:07.2 DEBUG: [PMTUDApp:223 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                     "uint8_t&, size_t)] MTU VLAN: 1500 VLAN:%u\r\n"
                     "14:03:07.2 DEBUG: [PMTUDApp:237 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                     "uint8_t&, size_t)] Src: 00:00:5e:00:53:01 Dest: 00:1a:2b:3c:4d:5e VLAN: %u "
                     "packet_len: 48\r\n"
                     "14:03:07.2 DEBUG: [PMTUDApp:257 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                     "uint8_t&, size_t)] ifindex: 7\r\n"
                     "14:03:07.2 DEBUG: [PMTUDApp:265 | bool PMTUDApp::sendICMP6PacketTooBig(const "
                     "uint8_t&, size_t)] socket created OK\r\n",
                     tag.id, tag.id));
    });
}

INSTANTIATE_TEST_SUITE_P(OfPriority, EveryTag, testing::Range(0U, 8U),
                         testing::PrintToStringParamName());

}  // namespace
