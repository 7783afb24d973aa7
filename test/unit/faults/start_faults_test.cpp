// SPDX-License-Identifier: MIT
// Every call of the start-up fails, twice in a row: the process entry, the attachment, the post.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <set>
#include <stdexcept>
#include <string>

#include "QVLog.h"
#include "SHM_Wrapper.h"
#include "qv_exception.h"
#include "roads.h"

using faults::Daemon;
using faults::Failure;
using faults::Lines;
using faults::upTo;
using faults::without;
using faults::World;
using faults::operator+;

/// The daemon's main, under the name that the build gives it here.
extern "C" int pmtud_main();

namespace {

struct Answer {
    const char* name;
    int value;
    const char* text;  ///< in a log line
};

constexpr Answer kNotZero[] = {
    {"One", 1, "1"},
    {"MinusOne", -1, "-1"},
    {"MinusEinval", -22, "-22"},
    {"MinusEnomem", -12, "-12"},
    {"TheLargest", INT_MAX, "2147483647"},
    {"TheSmallest", INT_MIN, "-2147483648"},
};

std::ostream& operator<<(std::ostream& os, const Answer& answer) { return os << answer.text; }

const std::string kInit = " | virtual bool SHM_Wrapper_App::init()] ";
const std::string kStarting =
    "14:03:07.2 DEBUG: [PMTUDApp:69 | bool PMTUDApp::run() const] PMTUD starting...\r\n";
const std::string kInitialising =
    "14:03:07.2 DEBUG: [SHM_Wrapper:135 | virtual bool SHM_Wrapper_App::init()] initializing\r\n";
const std::string kNoShm =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";
const std::string kQueueInit = "pktd_shm_queue_init(pmtud, 0, 1, tx pool, rx pool)";
const std::string kThreadInit =
    "pktd_shm_rx_thread_init(pmtud, rx pool, rx wl pool, 32, 32, callback, 0)";

const Lines kAttached = {kStarting, kInitialising, kQueueInit, kThreadInit};

class TheAttachment : public testing::TestWithParam<Answer> {
 protected:
    Daemon daemon;
};

TEST_P(TheAttachment, FailsTwiceInARowWhereTheQueueAnswersThisAndWorksTheThirdTime) {
    World world(qv::DEBUG);
    world.fail("pktd_shm_queue_init", Failure{GetParam().value}, 2);
    const Lines left = {kStarting, kInitialising, kQueueInit,
                        "14:03:07.2 ERROR: [SHM_Wrapper:140" + kInit +
                            "Could not initialize SHM queue, ret=" + GetParam().text + "\r\n",
                        kNoShm};
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_TRUE(daemon.app().run());
    EXPECT_EQ(world.journal, kAttached);
}

TEST_P(TheAttachment, FailsTwiceInARowWhereTheThreadAnswersThisAndWorksTheThirdTime) {
    World world(qv::DEBUG);
    world.fail("pktd_shm_rx_thread_init", Failure{GetParam().value}, 2);
    const Lines left = {kStarting,
                        kInitialising,
                        kQueueInit,
                        kThreadInit,
                        "14:03:07.2 ERROR: [SHM_Wrapper:145" + kInit +
                            "Could not initialize SHM thread, ret=" + GetParam().text + "\r\n",
                        kNoShm};
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_TRUE(daemon.app().run());
    EXPECT_EQ(world.journal, kAttached);
}

TEST_P(TheAttachment, SaysThatItFailedAlsoAtWarning) {
    World world(qv::WARNING);
    world.fail("pktd_shm_queue_init", Failure{GetParam().value});
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.journal,
              (Lines{kQueueInit,
                     "14:03:07.2 ERROR: [SHM_Wrapper:140" + kInit +
                         "Could not initialize SHM queue, ret=" + GetParam().text + "\r\n",
                     kNoShm}));
}

INSTANTIATE_TEST_SUITE_P(Answering, TheAttachment, testing::ValuesIn(kNotZero),
                         [](const auto& instance) { return instance.param.name; });

class TheRun : public testing::Test {
 protected:
    Daemon daemon;
};

TEST_F(TheRun, EndsByAnExceptionWithAnEmptyLineWhereItCannotSayThatTheQueueFailed) {
    World world(qv::WARNING);
    world.fail("pktd_shm_queue_init", Failure{-1});
    world.fail("localtime_r", Failure{0, EOVERFLOW});
    EXPECT_THROW(daemon.app().run(), std::runtime_error);
    EXPECT_EQ(world.journal, (Lines{kQueueInit, "\r\n"}));
}

TEST_F(TheRun, FailsInTheSameWayWhereNoLineCanBeWritten) {
    World world(qv::WARNING);
    world.fail("pktd_shm_queue_init", Failure{-1});
    world.fail("fputs", Failure{EOF, ENOSPC}, 2);
    world.fail("fflush", Failure{EOF, ENOSPC}, 2);
    EXPECT_FALSE(daemon.app().run());
    EXPECT_EQ(world.journal.back(), kNoShm);
}

// ---- the transmit queue

constexpr uint8_t kFrame[60] = {};

const Lines kPosted = {
    "14:03:07.2 DEBUG: [SHM_Wrapper:157 | bool SHM_Wrapper_App::pktdTxQueuePost("
    "const uint8_t*, size_t, bool)] Writing pkt: proto 2048 [0x800], vid 20\r\n",
    "pktd_queue_entry_data_vlan_based_init(2048, 20, frame, 60)",
    "shm_data_entry_post(tx pool + 8, 4, 60)"};

class ThePost : public testing::TestWithParam<Answer> {
 protected:
    ThePost() { adapter.setFrameInfo(0, 4, -1, 20, 2048, 77); }

    bool post() { return adapter.pktdTxQueuePost(kFrame, sizeof kFrame, GetParam().value < 0); }

    SHM_Wrapper_App& adapter = *getShmWrapperApp();
};

TEST_P(ThePost, FailsTwiceInARowWhereTheRecordAnswersThisAndWorksTheThirdTime) {
    World world(qv::DEBUG);
    world.fail("pktd_queue_entry_data_vlan_based_init", Failure{GetParam().value}, 2);
    const Lines left =
        upTo(kPosted, "pktd_queue_entry_data_vlan_based_init(2048, 20, frame, 60)") +
        Lines{std::string("14:03:07.2 ERROR: [SHM_Wrapper:164 | bool "
                          "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, bool)] "
                          "init error, ret ") +
              GetParam().text + "\r\n"};
    EXPECT_FALSE(post());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_FALSE(post());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_TRUE(post());
    EXPECT_EQ(world.journal, kPosted);
}

TEST_P(ThePost, FailsTwiceInARowWhereTheQueueAnswersThisAndWorksTheThirdTime) {
    World world(qv::DEBUG);
    world.fail("shm_data_entry_post", Failure{GetParam().value}, 2);
    const Lines left =
        kPosted + Lines{std::string("14:03:07.2 ERROR: [SHM_Wrapper:179 | bool "
                                    "SHM_Wrapper_App::pktdTxQueuePost(const uint8_t*, size_t, "
                                    "bool)] post error, ret ") +
                        GetParam().text + "\r\n"};
    EXPECT_FALSE(post());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_FALSE(post());
    EXPECT_EQ(world.takeJournal(), left);
    EXPECT_TRUE(post());
    EXPECT_EQ(world.journal, kPosted);
}

INSTANTIATE_TEST_SUITE_P(Answering, ThePost, testing::ValuesIn(kNotZero),
                         [](const auto& instance) { return instance.param.name; });

// ---- the process entry, whose sleep ends by an exception after a while

const std::string kClash =
    "14:03:07.2 ERROR: [main:52 | int main()] another instance is already running\r\n";

/// Three sleeps, and the end.
const Lines kStart = {"open(/var/run/pmtud.pid, 66, 438)",
                      "flock(5, 6)",
                      "cfg_init()",
                      "cfg_add_pid(pmtud)",
                      "updateTZ()",
                      kQueueInit,
                      kThreadInit,
                      "usleep(500)",
                      "usleep(500)",
                      "usleep(500)",
                      "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n",
                      "14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n",
                      "cfg_clear_pid()",
                      "exit status 1"};

void start(World& world) {
    int sleeps = 0;
    world.hooks["usleep"] = [&sleeps] {
        if (++sleeps == 3) throw qv::exception("woken");
    };
    world.journal.push_back("exit status " + std::to_string(pmtud_main()));
    world.hooks.clear();
}

/// What one failing call makes of the start.
struct StartFault {
    std::string name;
    std::string call;
    Failure failure;
    int times;  ///< how often a start makes the call
    Lines left;
    std::set<int> open = {5};
};

std::ostream& operator<<(std::ostream& os, const StartFault& fault) { return os << fault.name; }

Lines behind(const Lines& lines, const std::string& entry, const Lines& added) {
    const Lines head = upTo(lines, entry);
    return head + added +
           Lines(lines.begin() + static_cast<std::ptrdiff_t>(head.size()), lines.end());
}

Lines withoutPidFile() {
    Lines lines = kStart;
    lines[1] = "flock(-1, 6)";
    return lines;
}

std::vector<StartFault> startFaults() {
    std::vector<StartFault> faults;
    const Failure noOpens[] = {{-1, EACCES}, {-1, EROFS},  {-1, ENOENT}, {-1, EMFILE},
                               {-1, ENFILE}, {-1, ENOSPC}, {-1, EINTR},  {-1, EISDIR}};
    // Where there is no descriptor, the kernel answers the lock so.
    for (const Failure& failure : noOpens) {
        faults.push_back({"ThePidFileIsNotOpenedByErrno" + std::to_string(failure.error),
                          "open",
                          failure,
                          1,
                          withoutPidFile(),
                          {}});
    }
    for (const int error : {EINTR, EBADF, ENOLCK, EINVAL, EIO}) {
        faults.push_back({"TheLockIsNotTakenByErrno" + std::to_string(error), "flock",
                          Failure{-1, error}, 1, kStart});
    }
    faults.push_back({"TheLockIsAnothers", "flock", Failure{-1, EWOULDBLOCK}, 1,
                      behind(kStart, "flock(5, 6)", {kClash})});
    for (const auto& [name, value, text] : kNotZero) {
        for (const char* const call : {"cfg_init", "cfg_add_pid", "updateTZ", "cfg_clear_pid"}) {
            faults.push_back(
                {std::string(call) + "Answers" + name, call, Failure{value}, 1, kStart});
        }
        faults.push_back({std::string("TheQueueAnswers") + name, "pktd_shm_queue_init",
                          Failure{value}, 1,
                          behind(without(kStart, "pktd_shm_rx_thread_init("), kQueueInit,
                                 {"14:03:07.2 ERROR: [SHM_Wrapper:140" + kInit +
                                      "Could not initialize SHM queue, ret=" + text + "\r\n",
                                  kNoShm})});
        faults.push_back({std::string("TheThreadAnswers") + name, "pktd_shm_rx_thread_init",
                          Failure{value}, 1,
                          behind(kStart, kThreadInit,
                                 {"14:03:07.2 ERROR: [SHM_Wrapper:145" + kInit +
                                      "Could not initialize SHM thread, ret=" + text + "\r\n",
                                  kNoShm})});
    }
    faults.push_back({"TheSleepIsInterrupted", "usleep", Failure{-1, EINTR}, 2, kStart});
    faults.push_back({"TheSleepIsInvalid", "usleep", Failure{-1, EINVAL}, 2, kStart});
    for (const int error : {ENOSPC, EPIPE, EIO, EBADF}) {
        const Failure eof{EOF, error};
        const std::string name = "ByErrno" + std::to_string(error);
        faults.push_back({"NoLineIsPut" + name, "fputs", eof, 2, kStart});
        faults.push_back({"NoLineIsFlushed" + name, "fflush", eof, 2, kStart});
    }
    return faults;
}

class TheStart : public testing::TestWithParam<StartFault> {};

TEST_P(TheStart, GoesOnTwiceInARowWhereThisFailsAndTheThirdIsUntroubled) {
    const StartFault& fault = GetParam();
    World world(qv::WARNING);
    world.fail(fault.call, fault.failure, 2 * fault.times);
    for (const char* const time : {"first", "second"}) {
        start(world);
        EXPECT_EQ(world.takeJournal(), fault.left) << time;
        // The PID file alone, which is never closed; the process's end does that.
        EXPECT_EQ(world.open, fault.open) << time;
        world.open.clear();
    }
    start(world);
    EXPECT_EQ(world.journal, kStart);
    EXPECT_EQ(world.open, std::set<int>{5});
}

INSTANTIATE_TEST_SUITE_P(Where, TheStart, testing::ValuesIn(startFaults()),
                         [](const auto& instance) { return instance.param.name; });

class TheProcessEntry : public testing::Test {};

/// The number of the last failure says nothing about a lock that was taken.
TEST_F(TheProcessEntry, IsNotMisledByAnOlderErrno) {
    World world(qv::WARNING);
    world.hooks["flock"] = [] { errno = EWOULDBLOCK; };
    start(world);
    EXPECT_EQ(world.journal, kStart);
}

TEST_F(TheProcessEntry, SaysThatThereIsAnUnknownExceptionWhereTheSleepThrowsOne) {
    World world(qv::WARNING);
    world.hooks["usleep"] = [] { throw std::runtime_error("woken"); };
    EXPECT_EQ(pmtud_main(), 1);
    EXPECT_EQ(world.journal,
              upTo(kStart, "usleep(500)") +
                  (Lines{"14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n",
                         "14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n",
                         "cfg_clear_pid()"}));
}

TEST_F(TheProcessEntry, SaysSoAlsoWhereWhatIsThrownIsNoException) {
    World world(qv::WARNING);
    world.hooks["usleep"] = [] { throw 5; };
    EXPECT_EQ(pmtud_main(), 1);
    EXPECT_EQ(world.journal.at(world.journal.size() - 3),
              "14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n");
}

TEST_F(TheProcessEntry, DoesNotWarnOfItsEndWhereOnlyErrorsAreReported) {
    World world(qv::ERROR);
    world.fail("flock", Failure{-1, EWOULDBLOCK});
    start(world);
    EXPECT_EQ(world.journal,
              behind(without(kStart, "14:03:07.2 WARNING: "), "flock(5, 6)", {kClash}));
}

TEST_F(TheProcessEntry, SaysNothingWhereErrorsAreNotReported) {
    World world(qv::ERROR - 1);
    world.fail("flock", Failure{-1, EWOULDBLOCK});
    start(world);
    EXPECT_EQ(world.journal,
              without(without(kStart, "14:03:07.2 ERROR: "), "14:03:07.2 WARNING: "));
}

TEST_F(TheProcessEntry, SaysNothingOfAnUnknownExceptionThatIsNotReported) {
    World world(qv::ERROR - 1);
    world.hooks["usleep"] = [] { throw 5; };
    EXPECT_EQ(pmtud_main(), 1);
    EXPECT_EQ(world.journal, upTo(kStart, "usleep(500)") + Lines{"cfg_clear_pid()"});
}

/// The handler's own line needs the time as well, and nothing is left to catch that.
TEST_F(TheProcessEntry, IsLeftByAnExceptionWhereTheLastLinesCannotBeWritten) {
    World world(qv::WARNING);
    world.fail("localtime_r", Failure{0, EOVERFLOW});
    world.hooks["usleep"] = [] { throw qv::exception("woken"); };
    EXPECT_THROW(pmtud_main(), std::runtime_error);
    EXPECT_EQ(world.journal, upTo(kStart, "usleep(500)") + Lines{"\r\n"});
}

}  // namespace
