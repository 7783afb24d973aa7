// SPDX-License-Identifier: MIT
// Every MTU that the configuration service can answer, as far as the unsigned numbers go.
#include <vector>

#include "exhaustive.h"
#include "expected_message.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Lines;
using exhaustive::forgetCalls;
using expected::text;

/// 0 to 16,400, then what a test in signed or in 16-bit arithmetic would take for a valid MTU.
std::vector<uint32_t> everyMtu() {
    std::vector<uint32_t> mtus;
    for (uint32_t mtu = 0; mtu <= 16400; ++mtu) mtus.push_back(mtu);
    mtus.insert(mtus.end(),
                {32767, 32768, 33344, 65535, 65536, 66112, 67036, 81919, 2147483647, 2147483648,
                 2147484224, 2147485148, 4294901760, 4294950911, 4294966720, 4294967295});
    return mtus;
}

bool isAnswered(uint32_t mtu) { return mtu >= 576 && mtu <= 16383; }

class EveryMtu : public EngineTest {
 protected:
    template <typename Check>
    void forEachMtu(Check check) {
        for (const uint32_t mtu : everyMtu()) {
            answerMtu(mtu);
            forgetCalls();
            check(mtu);
            if (HasFatalFailure()) return;
        }
    }
};

TEST_F(EveryMtu, From576To16383IsReportedByTheIpv4Reply) {
    Bytes frame = ipv4Frame();
    forEachMtu([&](uint32_t mtu) {
        const bool answered = app.sendICMP4PacketTooBig(frame.data(), frame.size());
        ASSERT_EQ(answered, isAnswered(mtu)) << "MTU " << mtu;
        if (!answered) return;
        ASSERT_EQ(fake::syscalls().sent.size(), 1U) << "MTU " << mtu;
        ASSERT_EQ(fake::syscalls().sent[0].bytes, expected::fragmentationNeeded(mtu, frame))
            << "MTU " << mtu;
    });
}

TEST_F(EveryMtu, OutsideOf576To16383EndsTheIpv4ReplyWithALine) {
    Bytes frame = ipv4Frame();
    forEachMtu([&](uint32_t mtu) {
        if (isAnswered(mtu)) return;
        app.sendICMP4PacketTooBig(frame.data(), frame.size());
        ASSERT_EQ(fake::syscalls().calls, Lines()) << "MTU " << mtu;
        ASSERT_EQ(fake::platform().debugTexts(),
                  Lines({text(" PMTUD-Prot: Invalid VLAN MTU - VLAN ID: 100 Egress: 77 "
                              "VLAN MTU: %u",
                              mtu)}));
    });
}

TEST_F(EveryMtu, From576To16383IsReportedByTheIpv6Reply) {
    const Bytes frame = ipv6Frame(16384);
    forEachMtu([&](uint32_t mtu) {
        const bool answered = reply6(frame);
        ASSERT_EQ(answered, isAnswered(mtu)) << "MTU " << mtu;
        if (!answered) return;
        ASSERT_EQ(fake::platform().icmp6Messages.size(), 1U) << "MTU " << mtu;
        ASSERT_EQ(fake::platform().icmp6Messages[0].bytes, expected::packetTooBig(mtu, frame))
            << "MTU " << mtu;
    });
}

TEST_F(EveryMtu, OutsideOf576To16383EndsTheIpv6ReplyWithALine) {
    const Bytes frame = ipv6Frame(1460);
    forEachMtu([&](uint32_t mtu) {
        if (isAnswered(mtu)) return;
        reply6(frame);
        ASSERT_EQ(fake::syscalls().calls, Lines()) << "MTU " << mtu;
        ASSERT_EQ(fake::platform().icmp6Messages.size(), 0U) << "MTU " << mtu;
        ASSERT_EQ(
            fake::platform().debugTexts(),
            Lines({text(" PMTUD-Prot: Invalid VLAN MTU: %u (VLAN ID : 100 Egress ID: 77)", mtu)}));
    });
}

}  // namespace
