// SPDX-License-Identifier: MIT
// Tests of a frame's verdict: the tag check, the handler's answer, the post action, the code.
#include <memory>
#include <type_traits>

#include "shm_test.h"

namespace {

using std::string_literals::operator""s;
using packets::bytesOf;
using shm_test::Bytes;
using shm_test::Fields;
using shm_test::fields;
using shm_test::kCaseName;
using shm_test::kLeast;
using shm_test::kMost;
using shm_test::Lines;
using shm_test::logAt;
using shm_test::ScriptedHandler;
using shm_test::taggedFrame;
using shm_test::with;

const std::string kPlace = " | int SHM_Wrapper::handleFrame(uint8_t*, size_t)] ";
const std::string kUnhandled =
    "14:03:07.2 DEBUG: [SHM_Wrapper:49" + kPlace + "Discarding packet\r\n";
/// The beginning of the dump; unit/net and unit/daemon's run.golden have all of it.
const std::string kDump = "14:03:07.2 DEBUG1: [SHM_Wrapper:37" + kPlace +
                          "\n===== [ETH DUMP] =====\ndata[18]: [00 1a 2b 3c 4d 5e 00 00 5e 00 53 "
                          "01 81 00 00 64 08 00]\n";

std::string invalidTpid(const std::string& tpid) {
    return "14:03:07.2 WARNING: [SHM_Wrapper:40" + kPlace + "Warning! Invalid tpid " + tpid +
           "\r\n";
}

class VerdictTest : public daemon_test::FakesTest {
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

// Actions.

struct Action {
    const char* name;
    int32_t value;
    int code;
    const char* statement;
    std::string text;
};

class ActionTest : public VerdictTest, public testing::WithParamInterface<Action> {
 protected:
    const SHM_Wrapper::eActions action = static_cast<SHM_Wrapper::eActions>(GetParam().value);
    const std::string line =
        "14:03:07.2 "s + GetParam().statement + kPlace + GetParam().text + "\r\n";
};

TEST_P(ActionTest, HasItsCodeAndItsLogLine) {
    EXPECT_EQ(adapter.queueActionCode(action), GetParam().code);
    EXPECT_EQ(logAt(qv::DEBUG4, [this] { adapter.setPostAction(action); }),
              Lines{"14:03:07.2 DEBUG: [SHM_Wrapper:71 | void "
                    "SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)] action " +
                    std::to_string(GetParam().value) + "\r\n"});
}

TEST_P(ActionTest, IsAppliedToEveryFrameThatTheHandlerAccepts) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(action);
    const Lines lines = verdictLog(qv::DEBUG1);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].starts_with(kDump));
    EXPECT_EQ(lines[1], line);
    EXPECT_EQ(lastVerdict, GetParam().code);
    EXPECT_EQ(verdict(), GetParam().code);
}

TEST_P(ActionTest, IsKeptButIgnoredForFramesRefusedUnhandledOrUntagged) {
    adapter.setPostAction(action);
    for (ScriptedHandler* const handler : {static_cast<ScriptedHandler*>(nullptr), &refusing}) {
        adapter.setHandler(handler);
        EXPECT_EQ(verdictLog(qv::DEBUG), Lines{kUnhandled});
        EXPECT_EQ(lastVerdict, 7);
    }
    adapter.setHandler(&accepting);
    std::swap(frame[12], frame[13]);
    EXPECT_EQ(verdictLog(qv::DEBUG), Lines{invalidTpid("129 [0x81]")});
    EXPECT_EQ(lastVerdict, 7);
    std::swap(frame[12], frame[13]);
    EXPECT_EQ(verdict(), GetParam().code);
}

Action invalid(const char* name, int32_t value) {
    const std::string text = "Error! Invalid post action code " + std::to_string(value);
    return {name, value, 1, "DEBUG: [SHM_Wrapper:63", text};
}

// 256 and 65537 are valid in their low 8 and 16 bits; 7, 8 and 9 are codes.
INSTANTIATE_TEST_SUITE_P(
    Actions, ActionTest,
    testing::Values(Action{"Discard", 0, 7, "DEBUG: [SHM_Wrapper:57", "Discarding packet"},
                    Action{"Accept", 1, 8, "DEBUG1: [SHM_Wrapper:54", "Accepting packet"},
                    Action{"Repost", 2, 9, "DEBUG: [SHM_Wrapper:60", "Reposting packet"},
                    invalid("Invalid3", 3), invalid("InvalidMinus1", -1), invalid("Invalid7", 7),
                    invalid("Invalid8", 8), invalid("Invalid256", 256),
                    invalid("Invalid65537", 65537), invalid("TheLargest", kMost),
                    invalid("TheSmallest", kLeast)),
    kCaseName);

TEST_F(VerdictTest, OfAnAcceptedFrameIsDiscardBeforeAnyActionIsSet) {
    adapter.setHandler(&accepting);
    EXPECT_EQ(verdict(), 7);
}

TEST_F(VerdictTest, FollowsTheActionThatTheHandlerSetsForThisFrame) {
    ScriptedHandler handler([this](uint8_t&, size_t) {
        adapter.setPostAction(SHM_Wrapper::eRepost);
        return true;
    });
    adapter.setHandler(&handler);
    adapter.setPostAction(SHM_Wrapper::eAccept);
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

TEST_F(VerdictTest, KeepsTheOldActionIfTheLineOfTheNewOneCannotBeWritten) {
    adapter.setHandler(&accepting);
    {
        const CapturedLog log(qv::DEBUG);
        fake::clock().localtimeFails = true;
        EXPECT_THROW(adapter.setPostAction(SHM_Wrapper::eAccept), std::runtime_error);
    }
    EXPECT_EQ(verdict(), 7);
}

// Handlers.

TEST_F(VerdictTest, CallsTheHandlerOnceWithTheFramesFirstByteAndTheLength) {
    ScriptedHandler handler([this](uint8_t& first, size_t len) {
        EXPECT_EQ(&first, frame.data());
        EXPECT_EQ(len, 22U);
        return true;
    });
    adapter.setHandler(&handler);
    verdict();
    EXPECT_EQ(handler.calls, 1);
}

TEST_F(VerdictTest, AsksTheHandlerThatWasSetLastAndNoneOnceItIsTakenAway) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    adapter.setHandler(&refusing);
    EXPECT_EQ(logAt(qv::DEBUG4, [this] { adapter.setHandler(&accepting); }), Lines{});
    EXPECT_EQ(verdict(), 8);
    EXPECT_EQ(refusing.calls, 0);
    adapter.setHandler(nullptr);
    EXPECT_EQ(verdict(), 7);
    EXPECT_EQ(accepting.calls, 1);
}

TEST_F(VerdictTest, DependsNeitherOnTheLengthNorOnTheAddress) {
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_EQ(adapter.handleFrame(frame.data(), 0), 8);
    frame.insert(frame.begin(), 0xEE);
    EXPECT_EQ(adapter.handleFrame(frame.data() + 1, 22), 8);
}

TEST_F(VerdictTest, Reads14BytesOfTheFrameAndNoMore) {
    const packets::GuardedBytes start(packets::cut(frame, 0, 14));
    adapter.setHandler(&accepting);
    EXPECT_EQ(adapter.handleFrame(start.data(), 14), 7);
    EXPECT_EQ(accepting.calls, 1);
}

// Tags.

/// Untagged IPv4, IPv6 and ARP, service tags, values next to 0x8100, half of it, its bytes swapped.
TEST_F(VerdictTest, IsDiscardWithOneWarningAndWithoutTheHandlerForAnyOtherTpid) {
    struct Tpid {
        uint16_t value;
        const char* text;
    };
    adapter.setHandler(&accepting);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    for (const auto& [value, text] :
         {Tpid{0x0800, "2048 [0x800]"}, Tpid{0x86DD, "34525 [0x86dd]"},
          Tpid{0x0806, "2054 [0x806]"}, Tpid{0x88A8, "34984 [0x88a8]"},
          Tpid{0x9100, "37120 [0x9100]"}, Tpid{0x8101, "33025 [0x8101]"},
          Tpid{0x80FF, "33023 [0x80ff]"}, Tpid{0x0100, "256 [0x100]"},
          Tpid{0x8000, "32768 [0x8000]"}, Tpid{0x0081, "129 [0x81]"}, Tpid{0x0000, "0 [0]"},
          Tpid{0xFFFF, "65535 [0xffff]"}}) {
        frame = with(frame, 12, bytesOf(value));
        EXPECT_EQ(verdictLog(qv::WARNING), Lines{invalidTpid(text)});
        EXPECT_EQ(lastVerdict, 7);
        const Lines lines = verdictLog(qv::DEBUG4);
        EXPECT_NE(lines.at(0).find("\nvlan_tpid: "s + text + "\n"), std::string::npos);
        EXPECT_EQ(lines.size(), 2U);
    }
    EXPECT_EQ(accepting.calls, 0);
}

TEST_F(VerdictTest, IsLeftToTheHandlerForEveryTagOfTpid0x8100) {
    adapter.setHandler(&accepting);
    const Bytes priorityTag = {0x00, 0x00};
    const Bytes firstVlan = {0x00, 0x01};
    const Bytes lastVlan = {0x0F, 0xFE};
    const Bytes dropEligible = {0x10, 0x64};
    const Bytes allOnes = {0xFF, 0xFF};
    for (const Bytes& tag : {priorityTag, firstVlan, lastVlan, dropEligible, allOnes}) {
        frame = with(frame, 14, tag);
        verdict();
    }
    EXPECT_EQ(accepting.calls, 5);
}

TEST_F(VerdictTest, IsLeftToTheHandlerForADoubleTaggedFrameWithAnOuter8021QTag) {
    frame = with(frame, 16, {0x81, 0x00, 0x00, 0x64});
    adapter.setHandler(&accepting);
    verdict();
    EXPECT_EQ(accepting.calls, 1);
}

// The base class takes its codes from the derived one.

/// Its codes are 500 plus the action.
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

TEST_F(VerdictTest, IsTheDerivedClassesCodeOfDiscardOrOfTheStoredAction) {
    RecordingWrapper recording;
    const auto code = [&] { return recording.handleFrame(frame.data(), frame.size()); };
    recording.setPostAction(SHM_Wrapper::eRepost);
    EXPECT_EQ(code(), 500);
    recording.setHandler(&refusing);
    EXPECT_EQ(code(), 500);
    recording.setHandler(&accepting);
    EXPECT_EQ(code(), 502);
    recording.setPostAction(static_cast<SHM_Wrapper::eActions>(-3));
    EXPECT_EQ(code(), 497);
    frame[13] = 0x01;
    const CapturedLog log(qv::ERROR);
    EXPECT_EQ(code(), 500);
    EXPECT_EQ(recording.asked, (std::vector<int32_t>{0, 0, 2, -3, 0}));
    EXPECT_FALSE(recording.m_initialised);
}

TEST_F(VerdictTest, IsNotAskedForIfTheHandlersExceptionPasses) {
    RecordingWrapper recording;
    ScriptedHandler handler([](uint8_t&, size_t) -> bool { throw std::runtime_error("handler"); });
    recording.setHandler(&handler);
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(recording.handleFrame(frame.data(), 22), std::runtime_error);
    EXPECT_EQ(recording.asked, std::vector<int32_t>{});
    EXPECT_EQ(log.text(), "");
}

static_assert(SHM_Wrapper::eDiscard == 0 && SHM_Wrapper::eAccept == 1 && SHM_Wrapper::eRepost == 2);
static_assert(std::is_same_v<std::underlying_type_t<SHM_Wrapper::eActions>, int32_t>);
static_assert(PKTD_VERDICT_DISCARD == 7 && PKTD_VERDICT_ACCEPT == 8 && PKTD_VERDICT_REPOST == 9 &&
              PKTD_VERDICT_INVALID == 1);

// In the Itanium C++ ABI, a virtual destructor takes two slots, and a pointer to a virtual function
// is 1 plus the slot's offset in bytes.
template <typename Function>
ptrdiff_t slotOf(Function function) {
    ptrdiff_t offset = 0;
    memcpy(&offset, &function, sizeof offset);
    return (offset - 1) / static_cast<ptrdiff_t>(sizeof(void*));
}

TEST(VirtualTableTest, HasTheFunctionsAfterTheDestructorInTheirOrder) {
    EXPECT_EQ(slotOf(&SHM_Wrapper::init), 2);
    EXPECT_EQ(slotOf(&SHM_Wrapper::queueActionCode), 3);
    EXPECT_EQ(slotOf(&SHM_Handler::handleFrame), 2);
}

// The frame info.

static_assert(sizeof(PktdFrameInfo) == 24);

TEST(FrameInfoTest, TakesTheArgumentsInTheOrderOfItsFieldsEachTimeAndLogsNothing) {
    SHM_Wrapper_App adapter;
    adapter.setFrameInfo(11, 22, 33, 44, 55, 66);
    EXPECT_EQ(fields(adapter.frameInfo()), (Fields{11, 22, 33, 44, 55, 66}));
    Fields inMemory{};
    memcpy(&inMemory, &adapter.frameInfo(), sizeof inMemory);
    EXPECT_EQ(inMemory, (Fields{11, 22, 33, 44, 55, 66}));
    EXPECT_EQ(logAt(qv::DEBUG4, [&] { adapter.setFrameInfo(0, -1, -2, -3, -4, kLeast); }), Lines{});
    EXPECT_EQ(fields(adapter.frameInfo()), (Fields{0, -1, -2, -3, -4, kLeast}));
}

// The binding of a handler to an object and its member function.

class Application {
 public:
    virtual ~Application() { ++destroyed; }
    bool record(uint8_t& frame, size_t len) {
        seen.emplace_back(&frame, len);
        frame = 0xA5;
        return answer;
    }
    bool fail(uint8_t&, size_t) { throw std::runtime_error("from the bound function"); }
    virtual bool isDerived(uint8_t&, size_t) { return false; }

    int destroyed = 0;
    bool answer = true;
    std::vector<std::pair<uint8_t*, size_t>> seen;
};

class DerivedApplication : public Application {
 public:
    bool isDerived(uint8_t&, size_t) override { return true; }
};

using Binding = SHM_HandlerImpl<Application>;
static_assert(std::is_abstract_v<SHM_Handler> && std::has_virtual_destructor_v<SHM_Handler>);
static_assert(std::is_convertible_v<Binding*, SHM_Handler*>);
static_assert(sizeof(SHM_Handler) == sizeof(void*), "holds nothing");
static_assert(sizeof(Binding) == sizeof(SHM_Handler) + sizeof(void*) + sizeof(Binding::Handler));

TEST(BindingTest, HandsFrameAndUncheckedLengthToItsObjectAndTheResultBackAndDoesNotOwnIt) {
    Application application;
    std::unique_ptr<SHM_Handler> binding(new Binding(&application, &Application::record));
    Bytes frame = taggedFrame();
    EXPECT_TRUE(binding->handleFrame(frame[0], 22));
    EXPECT_EQ(frame[0], 0xA5);
    application.answer = false;
    EXPECT_FALSE(binding->handleFrame(frame[0], 0));
    EXPECT_EQ(application.seen,
              (std::vector<std::pair<uint8_t*, size_t>>{{frame.data(), 22}, {frame.data(), 0}}));
    binding.reset();
    EXPECT_EQ(application.destroyed, 0);
}

TEST(BindingTest, CallsVirtualFunctionsOfTheObjectAndLetsTheirExceptionsPass) {
    DerivedApplication application;
    uint8_t byte = 0;
    EXPECT_TRUE(Binding(&application, &Application::isDerived).handleFrame(byte, 1));
    EXPECT_THROW(Binding(&application, &Application::fail).handleFrame(byte, 1),
                 std::runtime_error);
}

}  // namespace
