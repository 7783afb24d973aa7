// SPDX-License-Identifier: MIT
// Tests of what becomes of a frame: the tag check, the handler's answer and the post action.
#include <limits>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "shm_test.h"

namespace {

using shm_test::Bytes;
using shm_test::fields;
using shm_test::frameWithTag;
using shm_test::Lines;
using shm_test::logAt;
using shm_test::ScriptedHandler;
using shm_test::taggedFrame;

const std::string kUnhandled =
    "14:03:07.2 DEBUG: [SHM_Wrapper:49 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";
const std::string kAccepting =
    "14:03:07.2 DEBUG1: [SHM_Wrapper:54 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Accepting packet\r\n";
const std::string kDiscarding =
    "14:03:07.2 DEBUG: [SHM_Wrapper:57 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Discarding packet\r\n";
const std::string kReposting =
    "14:03:07.2 DEBUG: [SHM_Wrapper:60 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Reposting packet\r\n";
const std::string kInvalidAction5 =
    "14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Error! Invalid post action code 5\r\n";
const std::string kInvalidTpid0x800 =
    "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
    "Warning! Invalid tpid 2048 [0x800]\r\n";
const std::string kDumpOfTaggedFrame =
    "14:03:07.2 DEBUG1: [SHM_Wrapper:37 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] \n"
    "===== [ETH DUMP] =====\n"
    "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 00 64 08 00]\n"
    "dest: 0:1a:2b:3c:4d:5e\n"
    "source: 0:0:5e:0:53:1\n"
    "vlan_tpid: 33024 [0x8100]\n"
    "vlan_tci: 100 [0x64]\n"
    "  vlan_pcp: 0 [0]\n"
    "  vlan_dei: 0 [0]\n"
    "  vlan_id: 100 [0x64]\n"
    "proto: 2048 [0x800]\n"
    "\r\n";

constexpr auto kAction5 = static_cast<SHM_Wrapper::eActions>(5);

/// The base class with codes that are no library's: 500 plus the action.
class RecordingWrapper : public SHM_Wrapper {
 public:
    using SHM_Wrapper::m_initialised;

    bool init() override { return false; }
    int queueActionCode(eActions action) override {
        asked.push_back(action);
        return 500 + action;
    }

    std::vector<int32_t> asked;
};

class VerdictTest : public shm_test::ShmTest {
 protected:
    int verdict() { return adapter.handleFrame(frame.data(), frame.size()); }
    /// What one frame has logged at this threshold; its verdict stays in `lastVerdict`.
    Lines verdictLog(int32_t level) {
        return logAt(level, [this] { lastVerdict = verdict(); });
    }

    int lastVerdict = 0;

    SHM_Wrapper_App adapter;
    ScriptedHandler accepting{true};
    ScriptedHandler refusing{false};
    Bytes frame = taggedFrame();
};

TEST_F(VerdictTest, WithoutAHandlerIsDiscard) { EXPECT_EQ(verdict(), 7); }

TEST_F(VerdictTest, WithoutAHandlerLogsDiscardingAsUnhandled) {
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kUnhandled});
}

TEST_F(VerdictTest, WithoutAHandlerIgnoresTheStoredAction) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdict(), 7);
}

TEST_F(VerdictTest, OfAnAcceptedFrameIsDiscardBeforeAnyActionIsSet) {
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kDiscarding});
}

TEST_F(VerdictTest, OfActionDiscardIs7AndLogsDiscarding) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eDiscard);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kDiscarding});
}

TEST_F(VerdictTest, OfActionAcceptIs8AndLogsAccepting) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdict(), 8);
    EXPECT_EQ(verdictLog(qv::DEBUG1), (Lines{kDumpOfTaggedFrame, kAccepting}));
}

TEST_F(VerdictTest, OfActionRepostIs9AndLogsReposting) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(verdict(), 9);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kReposting});
}

TEST_F(VerdictTest, OfAnInvalidActionIs1AndLogsItsNumber) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(kAction5);
    EXPECT_EQ(verdict(), 1);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kInvalidAction5});
}

TEST_F(VerdictTest, OfANegativeActionIs1AndLogsItsNumber) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(-3));
    EXPECT_EQ(verdict(), 1);
    EXPECT_EQ(
        verdictLog(qv::DEBUG),
        Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:63 | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] "
              "Error! Invalid post action code -3\r\n"});
}

TEST_F(VerdictTest, OfARefusedFrameIsDiscardAndLogsDiscardingAsUnhandled) {
    adapter.setHandler(&refusing);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kUnhandled});
}

TEST_F(VerdictTest, OfARefusedFrameIgnoresTheStoredActionAndKeepsIt) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    adapter.setHandler(&refusing);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kUnhandled});
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), 8);
}

TEST_F(VerdictTest, OfAnUntaggedFrameKeepsTheStoredAction) {
    adapter.setPostAction(SHM_Wrapper::eRepost);
    adapter.setHandler(&accepting);
    Bytes untagged = frameWithTag(0x08, 0x00, 0x45, 0x00);
    const CapturedLog log(qv::ERROR);
    EXPECT_EQ(adapter.handleFrame(untagged.data(), untagged.size()), 7);
    EXPECT_EQ(verdict(), 9);
}

TEST_F(VerdictTest, LeavesTheActionForLaterFrames) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdict(), 8);
    EXPECT_EQ(verdict(), 8);
}

TEST_F(VerdictTest, LeavesAnInvalidActionForLaterFrames) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(kAction5);
    EXPECT_EQ(verdict(), 1);
    EXPECT_EQ(verdict(), 1);
}

TEST_F(VerdictTest, FollowsTheActionThatTheHandlerSetsForThisFrame) {
    ScriptedHandler handler([this](uint8_t&, size_t) {
        adapter.setPostAction(SHM_Wrapper::eRepost);
        return true;
    });
    adapter.setHandler(&handler);
    EXPECT_EQ(verdict(), 9);
}

TEST_F(VerdictTest, KeepsTheActionThatARefusingHandlerSet) {
    ScriptedHandler handler([this](uint8_t&, size_t) {
        adapter.setPostAction(SHM_Wrapper::eAccept);
        return false;
    });
    adapter.setHandler(&handler);
    EXPECT_EQ(verdict(), 7);
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), 8);
}

TEST_F(VerdictTest, CallsTheHandlerOnceWithTheFramesFirstByteAndTheLength) {
    uint8_t* seenFrame = nullptr;
    size_t seenLength = 0;
    ScriptedHandler handler([&](uint8_t& first, size_t len) {
        seenFrame = &first;
        seenLength = len;
        return true;
    });
    adapter.setHandler(&handler);
    adapter.handleFrame(frame.data(), 22);
    EXPECT_EQ(handler.calls, 1);
    EXPECT_EQ(seenFrame, frame.data());
    EXPECT_EQ(seenLength, 22U);
}

TEST_F(VerdictTest, DoesNotDependOnTheLength) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(adapter.handleFrame(frame.data(), 0), 8);
    EXPECT_EQ(accepting.calls, 1);
}

// A heap block of exactly the bytes to be read: the address sanitizer sees any further one.
TEST_F(VerdictTest, Reads14BytesOfTheFrameAndNoMore) {
    const std::unique_ptr<uint8_t[]> start(new uint8_t[14]);
    memcpy(start.get(), frame.data(), 14);
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(adapter.handleFrame(start.get(), 14), 8);
}

TEST_F(VerdictTest, IsTheSameForAFrameAtAnOddAddress) {
    Bytes shifted{0xEE};
    shifted.insert(shifted.end(), frame.begin(), frame.end());
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(adapter.handleFrame(shifted.data() + 1, frame.size()), 8);
}

TEST_F(VerdictTest, LeavesTheFrameAsItIs) {
    adapter.setHandler(&accepting);
    const CapturedLog log(qv::DEBUG4);
    verdict();
    EXPECT_EQ(frame, taggedFrame());
}

TEST_F(VerdictTest, LeavesTheFrameInfoAsItIs) {
    adapter.setHandler(&accepting);
    adapter.setFrameInfo(1, 2, 3, 4, 5, 6);
    verdict();
    EXPECT_EQ(fields(adapter.frameInfo()), (std::array<int32_t, 6>{1, 2, 3, 4, 5, 6}));
}

TEST_F(VerdictTest, AsksTheHandlerThatWasSetLast) {
    adapter.setHandler(&refusing);
    adapter.setHandler(&accepting);
    verdict();
    EXPECT_EQ(refusing.calls, 0);
    EXPECT_EQ(accepting.calls, 1);
}

TEST_F(VerdictTest, IsDiscardAgainOnceTheHandlerIsTakenAway) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    adapter.setHandler(&accepting);
    adapter.setHandler(nullptr);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(accepting.calls, 0);
}

TEST_F(VerdictTest, LetsTheHandlersExceptionPass) {
    ScriptedHandler handler([](uint8_t&, size_t) -> bool { throw std::runtime_error("handler"); });
    adapter.setHandler(&handler);
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(verdict(), std::runtime_error);
    EXPECT_EQ(log.text(), "");
}

TEST_F(VerdictTest, IsLoggedAfterTheHandlerHasLogged) {
    ScriptedHandler handler([this](uint8_t&, size_t) {
        adapter.setPostAction(SHM_Wrapper::eRepost);
        return true;
    });
    adapter.setHandler(&handler);
    EXPECT_EQ(verdictLog(qv::DEBUG4),
              (Lines{kDumpOfTaggedFrame,
                     "14:03:07.2 DEBUG: [SHM_Wrapper:71 | void "
                     "SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] action 2\r\n",
                     kReposting}));
}

// Levels: each statement is silent one step below its own.

TEST_F(VerdictTest, IsSilentAtTheInitialThresholdForATaggedFrame) {
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdictLog(qv::WARNING), Lines{});
}

TEST_F(VerdictTest, UnhandledIsSilentAtInfo) { EXPECT_EQ(verdictLog(qv::INFO), Lines{}); }

TEST_F(VerdictTest, AcceptingIsSilentAtDebug) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{});
}

TEST_F(VerdictTest, DiscardingIsSilentAtInfo) {
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdictLog(qv::INFO), Lines{});
}

TEST_F(VerdictTest, RepostingIsSilentAtInfo) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(verdictLog(qv::INFO), Lines{});
}

TEST_F(VerdictTest, OfAnInvalidActionIsSilentAtInfo) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(kAction5);
    EXPECT_EQ(verdictLog(qv::INFO), Lines{});
}

TEST_F(VerdictTest, DumpIsSilentAtDebug) { EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kUnhandled}); }

TEST_F(VerdictTest, DumpComesFirstAtDebug1) {
    EXPECT_EQ(verdictLog(qv::DEBUG1), (Lines{kDumpOfTaggedFrame, kUnhandled}));
}

// The tag.

TEST_F(VerdictTest, OfAnUntaggedIpv4FrameIsDiscardWithOneWarning) {
    frame = frameWithTag(0x08, 0x00, 0x45, 0x00);
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdictLog(qv::WARNING), Lines{kInvalidTpid0x800});
    EXPECT_EQ(lastVerdict, 7);
    EXPECT_EQ(accepting.calls, 0);
}

TEST_F(VerdictTest, OfAnUntaggedFrameDoesNotLogDiscarding) {
    frame = frameWithTag(0x08, 0x00, 0x45, 0x00);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kInvalidTpid0x800});
}

TEST_F(VerdictTest, InvalidTpidIsSilentAtError) {
    frame = frameWithTag(0x08, 0x00, 0x45, 0x00);
    EXPECT_EQ(verdictLog(qv::ERROR), Lines{});
}

TEST_F(VerdictTest, DumpsAnUntaggedFrameBeforeTheWarning) {
    frame = frameWithTag(0x08, 0x00, 0x45, 0x00);
    EXPECT_EQ(verdictLog(qv::DEBUG1),
              (Lines{"14:03:07.2 DEBUG1: [SHM_Wrapper:37 | int SHM_Wrapper::handleFrame(uint8_t*, "
                     "size_t)] \n"
                     "===== [ETH DUMP] =====\n"
                     "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 08 00 45 00 08 00]\n"
                     "dest: 0:1a:2b:3c:4d:5e\n"
                     "source: 0:0:5e:0:53:1\n"
                     "vlan_tpid: 2048 [0x800]\n"
                     "vlan_tci: 17664 [0x4500]\n"
                     "  vlan_pcp: 2 [0x2]\n"
                     "  vlan_dei: 0 [0]\n"
                     "  vlan_id: 1280 [0x500]\n"
                     "proto: 2048 [0x800]\n"
                     "\r\n",
                     kInvalidTpid0x800}));
}

TEST_F(VerdictTest, DumpsATagOfAllOnes) {
    frame = frameWithTag(0x81, 0x00, 0xFF, 0xFF);
    EXPECT_EQ(verdictLog(qv::DEBUG1),
              (Lines{"14:03:07.2 DEBUG1: [SHM_Wrapper:37 | int SHM_Wrapper::handleFrame(uint8_t*, "
                     "size_t)] \n"
                     "===== [ETH DUMP] =====\n"
                     "data[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 01 81 00 ff ff 08 00]\n"
                     "dest: 0:1a:2b:3c:4d:5e\n"
                     "source: 0:0:5e:0:53:1\n"
                     "vlan_tpid: 33024 [0x8100]\n"
                     "vlan_tci: 65535 [0xffff]\n"
                     "  vlan_pcp: 7 [0x7]\n"
                     "  vlan_dei: 1 [0x1]\n"
                     "  vlan_id: 4095 [0xfff]\n"
                     "proto: 2048 [0x800]\n"
                     "\r\n",
                     kUnhandled}));
}

TEST_F(VerdictTest, OfADoubleTaggedFrameWithA8021adOuterTagIsDiscard) {
    // IEEE 802.1ad: service tag 0x88A8, then the customer's 0x8100.
    frame = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,
             0x88, 0xa8, 0x00, 0x0a, 0x81, 0x00, 0x00, 0x64, 0x08, 0x00, 0x45, 0x00};
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdictLog(qv::WARNING),
              Lines{"14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
                    "size_t)] Warning! Invalid tpid 34984 [0x88a8]\r\n"});
    EXPECT_EQ(lastVerdict, 7);
    EXPECT_EQ(accepting.calls, 0);
}

TEST_F(VerdictTest, OfADoubleTaggedFrameWithA8021QOuterTagIsTheHandlers) {
    frame = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x00, 0x00, 0x5e, 0x00, 0x53, 0x01,
             0x81, 0x00, 0x00, 0x0a, 0x81, 0x00, 0x00, 0x64, 0x08, 0x00, 0x45, 0x00};
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdict(), 8);
    EXPECT_EQ(accepting.calls, 1);
}

struct Tpid {
    const char* name;
    uint8_t high;
    uint8_t low;
    const char* line;
};

class InvalidTpidTest : public VerdictTest, public testing::WithParamInterface<Tpid> {};

TEST_P(InvalidTpidTest, IsDiscardWithOneWarningAndWithoutTheHandler) {
    frame = frameWithTag(GetParam().high, GetParam().low, 0x00, 0x64);
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{GetParam().line});
    EXPECT_EQ(lastVerdict, 7);
    EXPECT_EQ(accepting.calls, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Tpids, InvalidTpidTest,
    testing::Values(
        Tpid{"UntaggedIpv6", 0x86, 0xdd,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 34525 [0x86dd]\r\n"},
        Tpid{"UntaggedArp", 0x08, 0x06,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 2054 [0x806]\r\n"},
        Tpid{"ServiceTag", 0x88, 0xa8,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 34984 [0x88a8]\r\n"},
        Tpid{"OldDoubleTag", 0x91, 0x00,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 37120 [0x9100]\r\n"},
        Tpid{"BytesSwapped", 0x00, 0x81,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 129 [0x81]\r\n"},
        Tpid{"OneAbove", 0x81, 0x01,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 33025 [0x8101]\r\n"},
        Tpid{"OneBelow", 0x80, 0xff,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 33023 [0x80ff]\r\n"},
        Tpid{"Zero", 0x00, 0x00,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 0 [0]\r\n"},
        Tpid{"AllOnes", 0xff, 0xff,
             "14:03:07.2 WARNING: [SHM_Wrapper:40 | int SHM_Wrapper::handleFrame(uint8_t*, "
             "size_t)] Warning! Invalid tpid 65535 [0xffff]\r\n"}),
    [](const auto& row) { return row.param.name; });

struct Tci {
    const char* name;
    uint8_t high;
    uint8_t low;
};

class AnyTagTest : public VerdictTest, public testing::WithParamInterface<Tci> {};

TEST_P(AnyTagTest, OfTpid0x8100IsTheHandlers) {
    frame = frameWithTag(0x81, 0x00, GetParam().high, GetParam().low);
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(verdict(), 8);
    EXPECT_EQ(accepting.calls, 1);
}

INSTANTIATE_TEST_SUITE_P(Tags, AnyTagTest,
                         testing::Values(Tci{"PriorityTag", 0x00, 0x00}, Tci{"Vlan1", 0x00, 0x01},
                                         Tci{"Vlan4094", 0x0f, 0xfe},
                                         Tci{"DropEligible", 0x10, 0x64},
                                         Tci{"AllOnes", 0xff, 0xff}),
                         [](const auto& row) { return row.param.name; });

// The base class takes its codes from the derived one.

class BaseVerdictTest : public shm_test::ShmTest {
 protected:
    int verdict() { return adapter.handleFrame(frame.data(), frame.size()); }

    RecordingWrapper adapter;
    ScriptedHandler accepting{true};
    ScriptedHandler refusing{false};
    Bytes frame = taggedFrame();
};

TEST_F(BaseVerdictTest, OfAnUntaggedFrameIsTheCodeOfDiscard) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    frame = frameWithTag(0x08, 0x00, 0x45, 0x00);
    const CapturedLog log(qv::ERROR);
    EXPECT_EQ(verdict(), 500);
    EXPECT_EQ(adapter.asked, std::vector<int32_t>{0});
}

TEST_F(BaseVerdictTest, OfARefusedFrameIsTheCodeOfDiscard) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    adapter.setHandler(&refusing);
    EXPECT_EQ(verdict(), 500);
    EXPECT_EQ(adapter.asked, std::vector<int32_t>{0});
}

TEST_F(BaseVerdictTest, OfAnAcceptedFrameIsTheCodeOfTheStoredAction) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(verdict(), 502);
    EXPECT_EQ(adapter.asked, std::vector<int32_t>{2});
}

TEST_F(BaseVerdictTest, HandsAnInvalidActionToTheMappingAsItStands) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(-3));
    EXPECT_EQ(verdict(), 497);
    EXPECT_EQ(adapter.asked, std::vector<int32_t>{-3});
}

TEST_F(BaseVerdictTest, IsNotAskedForWhenTheHandlerThrows) {
    ScriptedHandler handler([](uint8_t&, size_t) -> bool { throw std::runtime_error("handler"); });
    adapter.setHandler(&handler);
    EXPECT_THROW(verdict(), std::runtime_error);
    EXPECT_EQ(adapter.asked, std::vector<int32_t>{});
}

// The adapter's small setters.

class PostActionTest : public VerdictTest {};

TEST_F(PostActionTest, IsLoggedAtDebug) {
    EXPECT_EQ(logAt(qv::DEBUG, [this] { adapter.setPostAction(SHM_Wrapper::eAccept); }),
              Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:71 | void "
                    "SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] action 1\r\n"});
}

TEST_F(PostActionTest, IsLoggedInDecimalAlsoWhereInvalid) {
    EXPECT_EQ(logAt(qv::DEBUG,
                    [this] { adapter.setPostAction(static_cast<SHM_Wrapper::eActions>(-16)); }),
              Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:71 | void "
                    "SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] action -16\r\n"});
}

TEST_F(PostActionTest, IsSilentAtInfoAndStored) {
    EXPECT_EQ(logAt(qv::INFO, [this] { adapter.setPostAction(SHM_Wrapper::eAccept); }), Lines{});
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), 8);
}

TEST_F(PostActionTest, IsLoggedBeforeItIsStored) {
    adapter.setHandler(&accepting);
    {
        const CapturedLog log(qv::DEBUG);
        fake::clock().localtimeFails = true;
        EXPECT_THROW(adapter.setPostAction(SHM_Wrapper::eAccept), std::runtime_error);
    }
    EXPECT_EQ(verdict(), 7);
}

TEST_F(PostActionTest, IsTheOneSetLast) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    adapter.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(verdict(), 9);
}

TEST_F(VerdictTest, SettingTheHandlerLogsNothing) {
    EXPECT_EQ(logAt(qv::DEBUG4, [this] { adapter.setHandler(&accepting); }), Lines{});
}

TEST(FrameInfoTest, IsMinusOneInEveryFieldBeforeTheFirstFrame) {
    EXPECT_EQ(fields(PktdFrameInfo()), (std::array<int32_t, 6>{-1, -1, -1, -1, -1, -1}));
    EXPECT_EQ(fields(SHM_Wrapper_App().frameInfo()),
              (std::array<int32_t, 6>{-1, -1, -1, -1, -1, -1}));
}

TEST(FrameInfoTest, IsSixSigned32BitIntegersInOrder) {
    EXPECT_EQ(sizeof(PktdFrameInfo), 24U);
    EXPECT_EQ(offsetof(PktdFrameInfo, unit), 0U);
    EXPECT_EQ(offsetof(PktdFrameInfo, port), 4U);
    EXPECT_EQ(offsetof(PktdFrameInfo, tid), 8U);
    EXPECT_EQ(offsetof(PktdFrameInfo, vid), 12U);
    EXPECT_EQ(offsetof(PktdFrameInfo, proto), 16U);
    EXPECT_EQ(offsetof(PktdFrameInfo, egress), 20U);
}

TEST(FrameInfoTest, TakesTheArgumentsInTheOrderOfItsFields) {
    RecordingWrapper adapter;
    adapter.setFrameInfo(11, 22, 33, 44, 55, 66);
    EXPECT_EQ(adapter.frameInfo().unit, 11);
    EXPECT_EQ(adapter.frameInfo().port, 22);
    EXPECT_EQ(adapter.frameInfo().tid, 33);
    EXPECT_EQ(adapter.frameInfo().vid, 44);
    EXPECT_EQ(adapter.frameInfo().proto, 55);
    EXPECT_EQ(adapter.frameInfo().egress, 66);
}

TEST(FrameInfoTest, IsOverwrittenByTheNextFrames) {
    RecordingWrapper adapter;
    adapter.setFrameInfo(11, 22, 33, 44, 55, 66);
    adapter.setFrameInfo(0, -1, -2, -3, -4, std::numeric_limits<int>::min());
    EXPECT_EQ(fields(adapter.frameInfo()),
              (std::array<int32_t, 6>{0, -1, -2, -3, -4, std::numeric_limits<int32_t>::min()}));
}

TEST(FrameInfoTest, IsSetWithoutALogLine) {
    RecordingWrapper adapter;
    EXPECT_EQ(logAt(qv::DEBUG4, [&] { adapter.setFrameInfo(1, 2, 3, 4, 5, 6); }), Lines{});
}

TEST(SHM_WrapperTest, IsAnInterfaceWithAVirtualDestructor) {
    EXPECT_TRUE(std::is_abstract_v<SHM_Wrapper>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SHM_Wrapper>);
}

TEST(SHM_WrapperTest, IsNotInitialisedAtFirst) { EXPECT_FALSE(RecordingWrapper().m_initialised); }

}  // namespace
