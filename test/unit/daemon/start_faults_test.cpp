// SPDX-License-Identifier: MIT
// Every call of the start-up fails, twice in a row, and so does every allocation.
#include <cerrno>
#include <climits>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "allocations.h"
#include "qv_exception.h"
#include "run.h"

/// The daemon's main, under the name that the build gives it here.
extern "C" int pmtud_main();

namespace {

using fake::Failure;
using fake::Journal;
using run::Lines;
using run::upTo;
using run::without;
using run::operator+;

const std::string kQueueInit =
    "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)";
const std::string kThreadInit =
    "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback, 0)";
const std::string kNoShm =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";
const std::string kClash =
    "14:03:07.2 ERROR: [main:52 | int main()] another instance is already running\r\n";
const std::string kUnknown =
    "14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n";

std::string notAttached(const std::string& statement, const std::string& text) {
    return "14:03:07.2 ERROR: [SHM_Wrapper:" + statement +
           " | virtual bool SHM_Wrapper_App::init()] Could not initialize SHM " + text + "\r\n";
}

// Each sleep is in the log; the third is ended by an exception.
const Lines kOpen = {"open(\"/var/run/pmtud.pid\", 0x42, 0666)", "flock(303, 6)"};
const Lines kRegister = {"cfg_init()", "cfg_add_pid(\"pmtud\")", "updateTZ()"};
const Lines kPark = {"usleep(500)", "usleep(500)", "usleep(500)",
                     "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n"};
const Lines kLeave = {"14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n",
                      "cfg_clear_pid()", "exit status 1"};
const Lines kStart = kOpen + kRegister + Lines{kQueueInit, kThreadInit} + kPark + kLeave;

class FakesTest : public daemon_test::FakesTest {
 protected:
    /// The whole start at WARNING; what fails has to be said before.
    static Lines start(int32_t level = qv::WARNING) {
        Journal journal(level);
        sleepUntilTheThird();
        const int status = pmtud_main();
        journal.note("exit status " + std::to_string(status));
        return journal.entries;
    }

    static void sleepUntilTheThird() {
        fake::on("usleep", [sleeps = 0]() mutable {
            if (++sleeps == 3) throw qv::exception("woken");
        });
    }
};

/// What one failing call makes of the start.
struct Fault {
    const char* name;
    const char* call;
    Failure failure;
    int times;  ///< how often a start makes the call
    Lines left;
};

std::ostream& operator<<(std::ostream& os, const Fault& fault) { return os << fault.name; }

// If there is no descriptor, the lock is tried all the same.
const Lines kWithoutPidFile =
    Lines{kOpen[0], "flock(-1, 6)"} + Lines(kStart.begin() + 2, kStart.end());

const Fault kFaults[] = {
    {"ThePidFileIsNotOpened", "open", {-1, EACCES}, 1, kWithoutPidFile},
    {"NoDescriptorIsLeft", "open", {-1, EMFILE}, 1, kWithoutPidFile},
    {"TheLockIsInterrupted", "flock", {-1, EINTR}, 1, kStart},
    {"TheLockFindsNoFile", "flock", {-1, EBADF}, 1, kStart},
    {"TheLockIsAnothers",
     "flock",
     {-1, EWOULDBLOCK},
     1,
     kOpen + Lines{kClash} + Lines(kStart.begin() + 2, kStart.end())},
    {"cfg_initFails", "cfg_init", {-22}, 1, kStart},
    {"cfg_initAnswersTheLargest", "cfg_init", {INT_MAX}, 1, kStart},
    {"cfg_add_pidFails", "cfg_add_pid", {-1}, 1, kStart},
    {"updateTZFails", "updateTZ", {1}, 1, kStart},
    {"cfg_clear_pidFails", "cfg_clear_pid", {INT_MIN}, 1, kStart},
    {"TheQueueFails",
     "pktd_shm_queue_init",
     {-19},
     1,
     kOpen + kRegister + Lines{kQueueInit, notAttached("140", "queue, ret=-19"), kNoShm} + kPark +
         kLeave},
    {"TheThreadFails",
     "pktd_shm_rx_thread_init",
     {-12},
     1,
     kOpen + kRegister +
         Lines{kQueueInit, kThreadInit, notAttached("145", "thread, ret=-12"), kNoShm} + kPark +
         kLeave},
    {"TheSleepIsInterrupted", "usleep", {-1, EINTR}, 2, kStart},
    {"NoLineIsPut", "fputs", {EOF, ENOSPC}, 2, kStart},
    {"NoLineIsFlushed", "fflush", {EOF, EPIPE}, 2, kStart},
};

class TheStart : public FakesTest, public testing::WithParamInterface<Fault> {};

TEST_P(TheStart, GoesOnTwiceInARowIfThisFailsAndTheThirdIsUntroubled) {
    fake::fail(GetParam().call, GetParam().failure, 2 * GetParam().times);
    EXPECT_EQ(start(), GetParam().left);
    EXPECT_EQ(start(), GetParam().left);
    EXPECT_EQ(start(), kStart);
}

INSTANTIATE_TEST_SUITE_P(If, TheStart, testing::ValuesIn(kFaults), daemon_test::kCaseName);

class TheProcessEntry : public FakesTest {};

/// The number of the last failure means nothing for a lock that was taken.
TEST_F(TheProcessEntry, IsNotMisledByAnOlderErrno) {
    fake::on("flock", [] { errno = EWOULDBLOCK; });
    EXPECT_EQ(start(), kStart);
}

TEST_F(TheProcessEntry, LogsNeitherItsEndAtErrorNorErrorsBelow) {
    fake::fail("flock", {-1, EWOULDBLOCK}, 2);
    EXPECT_EQ(start(qv::ERROR),
              (kOpen + Lines{kClash} + kRegister + Lines{kQueueInit, kThreadInit} + kPark +
               without(kLeave, "14:03:07.2 WARNING: ")));
    EXPECT_EQ(start(qv::ERROR - 1),
              without(without(kStart, "14:03:07.2 ERROR: "), "14:03:07.2 WARNING: "));
}

TEST_F(TheProcessEntry, LogsNothingOfAnUnknownExceptionThatIsNotReported) {
    fake::on("usleep", [] { throw 5; });
    Journal journal(qv::ERROR - 1);
    EXPECT_EQ(pmtud_main(), 1);
    EXPECT_EQ(journal.entries, upTo(kStart, "usleep(500)") + Lines{"cfg_clear_pid()"});
}

/// The handler's own line needs the time as well, and nothing is left to catch that.
TEST_F(TheProcessEntry, IsLeftByAnExceptionIfTheLastLinesCannotBeWritten) {
    fake::fail("localtime_r", {0, EOVERFLOW});
    fake::on("usleep", [] { throw qv::exception("woken"); });
    Journal journal(qv::WARNING);
    EXPECT_THROW(pmtud_main(), std::runtime_error);
    EXPECT_EQ(journal.entries, upTo(kStart, "usleep(500)") + Lines{"\r\n"});
}

// Without memory.

class TheEntryShortOfMemory : public FakesTest {
 protected:
    /// The start on another thread, the n-th allocation failing; nothing is held after it.
    static Lines startWithout(int nth, bool onwards = false) {
        sleepUntilTheThird();
        Journal journal(qv::WARNING);
        std::thread([&] {
            int status = -1;
            {
                const allocations::Counted counted(nth, onwards);
                status = pmtud_main();
            }
            journal.note("exit status " + std::to_string(status));
        }).join();
        EXPECT_EQ(allocations::alive(), 0);
        return journal.entries;
    }

    const std::string fails = "operator new fails";
    const Lines parked = {kPark.begin(), kPark.end() - 1};
};

TEST_F(TheEntryShortOfMemory, ExitsWithoutMemoryForTheHandlerAndWorksTheThirdTime) {
    const Lines exits = kOpen + kRegister + Lines{fails, kUnknown} + kLeave;
    EXPECT_EQ(startWithout(1), exits);
    EXPECT_EQ(startWithout(1), exits);
    EXPECT_EQ(startWithout(0), kStart);
}

TEST_F(TheEntryShortOfMemory, ExitsInTheSameWayWithoutMemoryForItsLastLines) {
    EXPECT_EQ(startWithout(2, true), (kOpen + kRegister + Lines{kQueueInit, kThreadInit} + parked +
                                      Lines{fails, "14:03:07.2 ERRO", fails, "14:03:07.2 WARN",
                                            "cfg_clear_pid()", "exit status 1"}));
}

TEST_F(TheEntryShortOfMemory, ExitsInTheSameWayWithoutAnyMemory) {
    EXPECT_EQ(startWithout(1, true),
              (kOpen + kRegister +
               Lines{fails, fails, "14:03:07.2 ERRO", fails, "14:03:07.2 WARN", "cfg_clear_pid()",
                     "exit status 1"}));
}

TEST_F(TheEntryShortOfMemory, GoesOnWithoutMemoryToLogThatAnotherInstanceRuns) {
    fake::fail("flock", {-1, EWOULDBLOCK});
    EXPECT_EQ(startWithout(1),
              (kOpen + Lines{fails, "14:03:07.2 ERRO"} + Lines(kStart.begin() + 2, kStart.end())));
}

/// After the handler's allocation and the first line's, none is left to fail.
TEST_F(TheEntryShortOfMemory, MakesTwoAllocationsInAll) {
    fake::fail("pktd_shm_queue_init", {-1});
    EXPECT_EQ(startWithout(3),
              (kOpen + kRegister + Lines{kQueueInit, notAttached("140", "queue, ret=-1"), kNoShm} +
               kPark + kLeave));
}

}  // namespace
