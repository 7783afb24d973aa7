// SPDX-License-Identifier: MIT
// Every TPID and every EtherType: one of the first and two of the second lead to an answer.
#include "exhaustive.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::Lines;
using exhaustive::CountingHandler;
using exhaustive::forgetCalls;
using expected::text;

class EveryTpid : public testing::Test {
 protected:
    EveryTpid() { adapter.setHandler(&handler); }

    int verdict(unsigned tpid) {
        frame[12] = static_cast<uint8_t>(tpid / 256);
        frame[13] = static_cast<uint8_t>(tpid % 256);
        handler.calls = 0;
        return adapter.handleFrame(frame.data(), frame.size());
    }

    engine_test::FreshFakes fakes;
    CountingHandler handler{true};
    SHM_Wrapper_App adapter;
    Bytes frame = engine_test::frameOfType(0x0800);
};

TEST_F(EveryTpid, But8100IsKeptFromTheHandler) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    const CapturedLog log(-1);
    for (unsigned tpid = 0; tpid <= 0xFFFF; ++tpid) {
        const int code = verdict(tpid);
        ASSERT_EQ(handler.calls, tpid == 0x8100 ? 1 : 0) << "TPID " << tpid;
        ASSERT_EQ(code, tpid == 0x8100 ? 8 : 7) << "TPID " << tpid;
    }
}

TEST_F(EveryTpid, But8100IsNamedInAWarning) {
    for (unsigned tpid = 0; tpid <= 0xFFFF; ++tpid) {
        const CapturedLog log(1);
        verdict(tpid);
        const std::string warning = text(
            "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
            "Warning! Invalid tpid %u [%#x]\r\n",
            tpid, tpid);
        ASSERT_EQ(log.text(), tpid == 0x8100 ? "" : warning);
    }
}

class EveryEtherType : public EngineTest {
 protected:
    bool handleType(unsigned etherType) {
        frame[16] = static_cast<uint8_t>(etherType / 256);
        frame[17] = static_cast<uint8_t>(etherType % 256);
        forgetCalls();
        return app.handleFrame(frame.front(), frame.size());
    }

    /// Behind the Ethernet header, bytes that the reply of either family can quote.
    Bytes frame = ipv4Frame();
};

TEST_F(EveryEtherType, But0800And86DDIsLeftUnanswered) {
    for (unsigned etherType = 0; etherType <= 0xFFFF; ++etherType) {
        if (etherType == 0x0800 || etherType == 0x86DD) continue;
        ASSERT_FALSE(handleType(etherType)) << "EtherType " << etherType;
        ASSERT_EQ(fake::platform().calls, Lines()) << "EtherType " << etherType;
        ASSERT_EQ(fake::syscalls().calls, Lines()) << "EtherType " << etherType;
        ASSERT_EQ(fake::platform().debugLines.size(), 2U) << "EtherType " << etherType;
    }
}

TEST_F(EveryEtherType, But0800And86DDIsReportedAsReceivedAndNothingElse) {
    handleType(0x0806);
    EXPECT_EQ(fake::platform().debugTexts(),
              Lines({" PMTUD-Prot: Received frame of size: 1600",
                     " PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: 00:1a:2b:3c:4d:5e, "
                     "Rx VLAN: 20, Tx egress: 77"}));
}

TEST_F(EveryEtherType, Of0800IsAnsweredByIcmpAlone) {
    EXPECT_TRUE(handleType(0x0800));
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 0U);
}

TEST_F(EveryEtherType, Of86DDIsAnsweredByIcmp6Alone) {
    EXPECT_TRUE(handleType(0x86DD));
    EXPECT_EQ(fake::syscalls().sent.size(), 0U);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 1U);
}

TEST_F(EveryEtherType, LeavesTheDiscardAction) {
    // The action that the engine has stored is what an accepted frame is then answered with.
    CountingHandler accepting(true);
    adapter.setHandler(&accepting);
    for (unsigned etherType = 0; etherType <= 0xFFFF; ++etherType) {
        adapter.setPostAction(SHM_Wrapper::eAccept);
        handleType(etherType);
        ASSERT_EQ(adapter.handleFrame(frame.data(), frame.size()), 7) << "EtherType " << etherType;
    }
}

}  // namespace
