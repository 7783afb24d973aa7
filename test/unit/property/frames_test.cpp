// SPDX-License-Identifier: MIT
// Random frames in random order through the receive callback, while what it asks answers at
// random and fails at random: what must hold after each.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "engine_test.h"
#include "expected_message.h"
#include "random.h"

namespace {

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::Lines;
using property::Random;

/// What the platform and the system answer for one frame.
struct Answers {
    int vlan;
    uint32_t mtu;
    bool socketOpens;
    int ttlResult;
    long sendResult;
    unsigned ifindex;
    int createResult;
    int send6Result;
};

Answers randomAnswers(Random& random) {
    const auto vlan = random.once(6) ? random.oneOf<int>({0, 4095, -1, 65636})
                                     : random.oneOf<int>({1, 2, 100, 4093, 4094});
    const auto mtu = random.once(6)
                         ? random.oneOf<uint32_t>({0, 575, 16384, 66112, 4294967295})
                         : random.oneOf<uint32_t>({576, 1280, 1499, 1500, 1501, 9000, 16383});
    return {vlan,
            mtu,
            !random.once(4),
            random.oneOf<int>({0, 0, -1}),
            random.oneOf<long>({68, 1, 0, -1}),
            random.oneOf<unsigned>({7, 1, 0}),
            random.oneOf<int>({0, 0, 0, -1, 1}),
            random.oneOf<int>({0, 1, 1500, -1, -22})};
}

/// What must come of one frame.
struct Outcome {
    bool isSeenByTheEngine;
    std::size_t debugLines;
    bool opensASocket;
    std::vector<Bytes> icmp;
    std::vector<Bytes> icmp6;
};

Outcome expectedOutcome(const Bytes& frame, const Answers& answers) {
    if (frame[12] != 0x81 || frame[13] != 0x00) return {};
    const bool isIpv4 = frame[16] == 0x08 && frame[17] == 0x00;
    const bool isIpv6 = frame[16] == 0x86 && frame[17] == 0xDD;
    if (!isIpv4 && !isIpv6) return {true, 2, false, {}, {}};
    if (answers.vlan < 1 || answers.vlan > 4094) return {true, 3, false, {}, {}};
    if (answers.mtu < 576 || answers.mtu > 16383) return {true, 3, false, {}, {}};
    // Two lines of the intake, five of the packet and one of the message or of its socket; one
    // more where the message is sent.
    if (isIpv4) {
        if (!answers.socketOpens) return {true, 8, false, {}, {}};
        const Bytes message = expected::fragmentationNeeded(answers.mtu, frame);
        return {true, answers.sendResult >= 0 ? 9U : 8U, true, {message}, {}};
    }
    if (answers.createResult != 0) return {true, 8, false, {}, {}};
    const Bytes message = expected::packetTooBig(answers.mtu, frame);
    return {true, answers.send6Result >= 0 ? 9U : 8U, true, {}, {message}};
}

/// The descriptors that the fakes hand out, each one once, and whether they come back.
class Descriptors {
 public:
    int open() {
        m_open.insert(++m_last);
        return m_last;
    }
    void close(int fd) { m_strays += m_open.erase(fd) == 1 ? 0U : 1U; }

    int opened() const { return m_last - kFirst; }
    std::size_t stillOpen() const { return m_open.size(); }
    /// Closed although not open.
    unsigned strays() const { return m_strays; }

 private:
    static constexpr int kFirst = 1000;
    int m_last = kFirst;
    std::set<int> m_open;
    unsigned m_strays = 0;
};

class AcceptingHandler : public SHM_Handler {
 public:
    bool handleFrame(uint8_t&, size_t) override { return true; }
};

/// The code that an accepted frame is answered with.
int codeOf(int32_t action) { return action >= 0 && action <= 2 ? action + 7 : 1; }

class RandomFrames : public EngineTest, public testing::WithParamInterface<uint32_t> {
 protected:
    RandomFrames() {
        adapter.setHandler(&binding);
        fake::platform().destVlan = [this](int) { return answers.vlan; };
        fake::platform().vlanMtu = [this](int) { return answers.mtu; };
        fake::platform().icmp6SocketCreate = [this](int32_t* fd) {
            // What a failing call leaves behind is no socket to close.
            *fd = answers.createResult == 0 ? descriptors.open() : 999;
            return answers.createResult;
        };
        fake::platform().icmp6Send = [this] { return answers.send6Result; };
        fake::syscalls().socket = [this] { return answers.socketOpens ? descriptors.open() : -1; };
        fake::syscalls().setsockopt = [this] { return answers.ttlResult; };
        fake::syscalls().sendto = [this](std::size_t) { return answers.sendResult; };
        fake::syscalls().ifNameToIndex = [this](const std::string&) { return answers.ifindex; };
        fake::syscalls().close = [this] {
            int fd = 0;
            sscanf(fake::syscalls().calls.back().c_str(), "close(%d)", &fd);
            descriptors.close(fd);
            return 0;
        };
    }

    void nextFrame() {
        fake::platform().calls.clear();
        fake::platform().debugLines.clear();
        fake::platform().icmp6Messages.clear();
        fake::syscalls().calls.clear();
        fake::syscalls().sent.clear();
        answers = randomAnswers(random);
        makeFrame();
        makeRecord();
    }

    int deliver() {
        st_pktd_shm_queue_entry_data_t entry;
        memcpy(&entry, record.data(), sizeof entry);
        return SHM_Wrapper_App::pkt_rx_cb(&entry, frame.data(),
                                          static_cast<int>(random.below(2000)));
    }

    /// The record's number at this offset, in the processor's byte order.
    int32_t recorded(std::size_t offset) const {
        int32_t number = 0;
        memcpy(&number, record.data() + offset, sizeof number);
        return number;
    }

    /// The code of the action that the adapter keeps, which an accepted frame shows.
    int codeOfKeptAction() {
        AcceptingHandler accepting;
        adapter.setHandler(&accepting);
        Bytes tagged = engine_test::frameOfType(0x0800);
        const int code = adapter.handleFrame(tagged.data(), tagged.size());
        adapter.setHandler(&binding);
        return code;
    }

    Random random{GetParam()};
    Answers answers{};
    Descriptors descriptors;
    SHM_HandlerImpl<PMTUDApp> binding{&app, &PMTUDApp::handleFrame};
    /// As much as the dump of the longest IPv6 packet reads.
    Bytes frame = random.bytes(18 + 40 + 65535);
    Bytes record = random.bytes(9364);

 private:
    void makeFrame() {
        const Bytes start = random.bytes(100);
        std::copy(start.begin(), start.end(), frame.begin());
        if (!random.once(8)) {
            frame[12] = 0x81;
            frame[13] = 0x00;
        }
        const auto type = random.oneOf<uint32_t>({0x0800, 0x0800, 0x86DD, 0x86DD, 0x0806});
        if (!random.once(16)) {
            frame[16] = static_cast<uint8_t>(type / 256);
            frame[17] = static_cast<uint8_t>(type % 256);
        }
        // Most IPv6 packets about as long as the message may be.
        if (!random.once(8)) frame[22] = static_cast<uint8_t>(random.below(8));
    }

    void makeRecord() {
        const Bytes control = random.bytes(364);
        std::copy(control.begin(), control.end(), record.begin() + 9000);
        if (random.once(2)) record[9017] = 0;
    }
};

TEST_P(RandomFrames, AreAllDiscardedAtEveryThreshold) {
    for (int round = 0; round < 300; ++round) {
        nextFrame();
        adapter.setPostAction(SHM_Wrapper::eAccept);
        const auto threshold = static_cast<int32_t>(random.below(10)) - 1;
        const CapturedLog log(threshold);
        ASSERT_EQ(deliver(), 7) << "round " << round;
        if (threshold < 3) continue;
        ASSERT_EQ(engine_test::last(linesOf(log.text())),
                  "14:03:07.2 DEBUG: [SHM_Wrapper:112 | static int SHM_Wrapper_App::pkt_rx_cb("
                  "const st_pktd_shm_queue_entry_data_t*, uint8_t*, int)] handle frame ret 7\r\n")
            << "round " << round;
    }
}

TEST_P(RandomFrames, CloseEachSocketOnceAndNoOther) {
    int opened = 0;
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        deliver();
        if (expectedOutcome(frame, answers).opensASocket) ++opened;
        ASSERT_EQ(descriptors.opened(), opened) << "round " << round;
        ASSERT_EQ(descriptors.stillOpen(), 0U) << "round " << round;
        ASSERT_EQ(descriptors.strays(), 0U) << "round " << round;
    }
    EXPECT_GT(opened, 1000);
}

TEST_P(RandomFrames, AreAnsweredWithOneMessageWhereAnswersAllowIt) {
    std::size_t icmp = 0;
    std::size_t icmp6 = 0;
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        deliver();
        const Outcome outcome = expectedOutcome(frame, answers);
        ASSERT_EQ(fake::syscalls().sent.size(), outcome.icmp.size()) << "round " << round;
        for (std::size_t i = 0; i < outcome.icmp.size(); ++i) {
            const fake::SentMessage& sent = fake::syscalls().sent[i];
            ASSERT_EQ(sent.bytes, outcome.icmp[i]) << "round " << round;
            ASSERT_EQ(memcmp(&sent.to.sin_addr, &frame[18 + 12], 4), 0) << "round " << round;
        }
        ASSERT_EQ(fake::platform().icmp6Messages.size(), outcome.icmp6.size()) << "round " << round;
        for (std::size_t i = 0; i < outcome.icmp6.size(); ++i) {
            const fake::Icmp6Message& sent = fake::platform().icmp6Messages[i];
            ASSERT_EQ(sent.bytes, outcome.icmp6[i]) << "round " << round;
            ASSERT_EQ(sent.ifindex, answers.ifindex) << "round " << round;
            ASSERT_EQ(memcmp(&sent.to.sin6_addr, &frame[18 + 8], 16), 0) << "round " << round;
        }
        icmp += outcome.icmp.size();
        icmp6 += outcome.icmp6.size();
    }
    EXPECT_GT(icmp, 500U);
    EXPECT_GT(icmp6, 500U);
}

TEST_P(RandomFrames, LeaveTheDiscardActionWhereTheEngineSawThemAndTheOldOneElse) {
    int32_t kept = SHM_Wrapper::eDiscard;
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        if (!random.once(3)) {
            kept = random.oneOf<int32_t>({0, 1, 2, 5, -1});
            adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(kept));
        }
        deliver();
        if (expectedOutcome(frame, answers).isSeenByTheEngine) kept = SHM_Wrapper::eDiscard;
        ASSERT_EQ(codeOfKeptAction(), codeOf(kept)) << "round " << round;
    }
}

TEST_P(RandomFrames, GiveTheDebugProcessALineForEachStepThatTheyGetTo) {
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        deliver();
        const auto& lines = fake::platform().debugLines;
        ASSERT_EQ(lines.size(), expectedOutcome(frame, answers).debugLines) << "round " << round;
        for (const fake::DebugLine& line : lines) {
            ASSERT_EQ(line.channel, 89U) << line.text;
            ASSERT_EQ(line.format, "%s") << line.text;
            ASSERT_EQ(line.text.substr(0, 13), " PMTUD-Prot: ") << line.text;
        }
    }
}

TEST_P(RandomFrames, HaveTheirOwnRecordInTheFrameInfo) {
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        deliver();
        const PktdFrameInfo& info = adapter.frameInfo();
        ASSERT_EQ(info.unit, recorded(9000)) << "round " << round;
        ASSERT_EQ(info.port, recorded(9004)) << "round " << round;
        ASSERT_EQ(info.tid, record[9017] != 0 ? recorded(9018) : -1) << "round " << round;
        ASSERT_EQ(info.vid, recorded(9089)) << "round " << round;
        ASSERT_EQ(info.proto, recorded(9071)) << "round " << round;
        ASSERT_EQ(info.egress, recorded(9111)) << "round " << round;
    }
}

TEST_P(RandomFrames, AreResolvedByTheEgressOfTheirOwnRecord) {
    for (int round = 0; round < 5000; ++round) {
        nextFrame();
        const CapturedLog log(0);
        deliver();
        // More lines than the intake's two: the packet is one of IP.
        if (expectedOutcome(frame, answers).debugLines <= 2) {
            ASSERT_EQ(fake::platform().calls, Lines()) << "round " << round;
            continue;
        }
        ASSERT_EQ(fake::platform().calls.at(0),
                  "cfg_vlan_l3_get_dest_vlan(" + std::to_string(recorded(9111)) + ")");
    }
}

INSTANTIATE_TEST_SUITE_P(OfSeed, RandomFrames, testing::Values(3, 14, 159, 2653),
                         testing::PrintToStringParamName());

}  // namespace
