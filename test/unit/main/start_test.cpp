// SPDX-License-Identifier: MIT
// The process entry in order, call by call: each call fails, twice in a row, each allocation fails,
// and exceptions come from everywhere.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "allocations.h"
#include "daemon_test.h"
#include "qv_exception.h"

/// The daemon's main, under the name that the build gives it here. It takes no arguments, but the C
/// library passes them, and so do the tests.
extern "C" int pmtud_main(int count, const char* const* arguments);

namespace {

using daemon_test::Lines;
using daemon_test::upTo;
using daemon_test::without;
using fake::Journal;
using packets::operator+;

std::string notAttached(const std::string& statement, const std::string& text) {
    return "14:03:07.2 ERROR: [SHM_Wrapper:" + statement +
           " | virtual bool SHM_Wrapper_App::init()] Could not initialize SHM " + text + "\r\n";
}

std::string caught(const std::string& text) {
    return "14:03:07.2 ERROR: [main:75 | int main()] " + text + "\r\n";
}

const std::string kNoShm =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";
const std::string kClash =
    "14:03:07.2 ERROR: [main:52 | int main()] another instance is already running\r\n";
const std::string kUnknown =
    "14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n";

const Lines kOpen = {"open(\"/var/run/pmtud.pid\", 0x42, 0666)", "flock(303, 6)"};
const Lines kRegister = {"cfg_init()", "cfg_add_pid(\"pmtud\")", "updateTZ()"};
const Lines kQueue = {
    "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, "
    "pktd_rx_queue_pool)"};
const Lines kThread = {
    "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, "
    "32, 32, callback, 0)"};
// An exception ends the third sleep.
const Lines kParked = {"usleep(500)", "usleep(500)", "usleep(500)"};
const Lines kLeave = {"14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n",
                      "cfg_clear_pid()", "exit status 1"};
const Lines kAttach = kRegister + kQueue + kThread;
const Lines kEnd = kParked + Lines{caught("woken")} + kLeave;
const Lines kStart = kOpen + kAttach + kEnd;

class StartTest : public daemon_test::FakesTest {
 protected:
    StartTest() {
        fake::on("usleep", [this] {
            if (++sleeps % 3 == 0) throw qv::exception("woken");
        });
    }

    /// Runs main; if an exception leaves it, the journal ends there.
    static void run(Journal& journal) {
        const char* const arguments[] = {"pmtud", "--help", "-d", "stop", nullptr};
        const int status = pmtud_main(4, arguments);
        const allocations::Paused paused;
        journal.note("exit status " + std::to_string(status));
    }

    static Lines start(int32_t level = qv::WARNING) {
        Journal journal(level);
        run(journal);
        return journal.entries;
    }

    int sleeps = 0;
};

TEST_F(StartTest, IgnoresItsCommandLineAndItsEnvironment) {
    for (const char* const name : {"PMTUD_LOG_LEVEL", "LOG_LEVEL", "DEBUG", "PIDFILE", "LC_ALL"}) {
        setenv(name, "7", 1);
    }
    EXPECT_EQ(start(), kStart);
}

// Calls that fail.

/// What one failing call does to the start.
struct Fault {
    const char* name;
    const char* call;
    Lines left;
    long result;
    int error = 0;
    int times = 1;  ///< how often a start makes the call
};

std::ostream& operator<<(std::ostream& os, const Fault& fault) { return os << fault.name; }

// The lock is tried even if there is no descriptor.
const Lines kWithoutPidFile = Lines{kOpen[0], "flock(-1, 6)"} + kAttach + kEnd;

const Fault kFaults[] = {
    {"ThePidFileIsNotOpened", "open", kWithoutPidFile, -1, EACCES},
    {"NoDescriptorIsLeft", "open", kWithoutPidFile, -1, EMFILE},
    {"TheLockIsInterrupted", "flock", kStart, -1, EINTR},
    {"TheLockFindsNoFile", "flock", kStart, -1, EBADF},
    {"AnotherInstanceHasTheLock", "flock", kOpen + Lines{kClash} + kAttach + kEnd, -1, EWOULDBLOCK},
    {"cfg_initFails", "cfg_init", kStart, -22},
    {"cfg_initReturnsTheLargest", "cfg_init", kStart, INT_MAX},
    {"cfg_add_pidFails", "cfg_add_pid", kStart, -1},
    {"updateTZFails", "updateTZ", kStart, 1},
    {"cfg_clear_pidFails", "cfg_clear_pid", kStart, INT_MIN},
    {"TheQueueFails", "pktd_shm_queue_init",
     kOpen + kRegister + kQueue + Lines{notAttached("140", "queue, ret=-19"), kNoShm} + kEnd, -19},
    {"TheThreadFails", "pktd_shm_rx_thread_init",
     kOpen + kAttach + Lines{notAttached("145", "thread, ret=-12"), kNoShm} + kEnd, -12},
    {"TheSleepIsInterrupted", "usleep", kStart, -1, EINTR, 2},
    {"NoLineIsPut", "fputs", kStart, EOF, ENOSPC, 2},
    {"NoLineIsFlushed", "fflush", kStart, EOF, EPIPE, 2},
};

class FaultTest : public StartTest, public testing::WithParamInterface<Fault> {};

TEST_P(FaultTest, DoesNotStopTheStartTwiceInARowAndTheThirdIsUndisturbed) {
    const Fault& fault = GetParam();
    fake::fail(fault.call, {fault.result, fault.error}, 2 * fault.times);
    EXPECT_EQ(start(), fault.left);
    EXPECT_EQ(start(), fault.left);
    EXPECT_EQ(start(), kStart);
}

INSTANTIATE_TEST_SUITE_P(If, FaultTest, testing::ValuesIn(kFaults), daemon_test::kCaseName);

/// The lock was taken, so the error number of an earlier call means nothing.
TEST_F(StartTest, IsNotMisledByAnOlderErrno) {
    fake::on("flock", [] { errno = EWOULDBLOCK; });
    EXPECT_EQ(start(), kStart);
}

TEST_F(StartTest, LogsOnlyErrorsAtErrorAndNothingBelowIt) {
    fake::fail("flock", {-1, EWOULDBLOCK}, 2);
    EXPECT_EQ(start(qv::ERROR),
              (kOpen + Lines{kClash} + kAttach + without(kEnd, "14:03:07.2 WARNING: ")));
    EXPECT_EQ(start(qv::ERROR - 1),
              without(without(kStart, "14:03:07.2 ERROR: "), "14:03:07.2 WARNING: "));
}

// Exceptions.

struct Exception {
    const char* name;
    const char* call;
    void (*thrower)();
    Lines left;  ///< between registration and exit
};

std::ostream& operator<<(std::ostream& os, const Exception& exception) {
    return os << exception.name;
}

const Exception kExceptions[] = {
    {"OfTheConstructor", "new", [] { throw qv::exception("no memory"); }, {caught("no memory")}},
    {"OfTheConstructorOfAnotherClass", "new", [] { throw std::runtime_error("x"); }, {kUnknown}},
    {"OfTheConstructorOfNoClass", "new", [] { throw 5; }, {kUnknown}},
    {"WithoutText", "new", [] { throw qv::exception(""); }, {caught("")}},
    {"WhoseTextLooksLikeAFormat",
     "new",
     [] { throw qv::exception("100% of %s, \"%n\"  [x] "); },
     {caught("100% of %s, \"%n\"  [x] ")}},
    {"OfTheRun", "pktd_shm_queue_init", [] { throw qv::exception("queue gone"); },
     kQueue + Lines{caught("queue gone")}},
    {"OfTheRunOfAnotherClass", "pktd_shm_rx_thread_init", [] { throw std::runtime_error("x"); },
     kQueue + kThread + Lines{kUnknown}},
    {"OfTheSleepOfAnotherClass", "usleep", [] { throw std::runtime_error("x"); },
     kQueue + kThread + Lines{"usleep(500)", kUnknown}},
};

class ExceptionTest : public StartTest, public testing::WithParamInterface<Exception> {};

/// The application's only allocation is its frame handler.
TEST_P(ExceptionTest, IsReportedAfterTheApplicationIsDestroyedAndEndsTheProcess) {
    const bool isAllocation = std::string(GetParam().call) == "new";
    const long before = allocations::alive();
    long whenReported = -1;
    fake::on("localtime_r", [&] {
        if (whenReported == -1) whenReported = allocations::alive();
    });
    Journal journal(qv::WARNING);
    fake::on(GetParam().call, GetParam().thrower);
    allocations::onFailure = [] {
        const allocations::Paused paused;
        GetParam().thrower();
    };
    std::thread([&] {
        const allocations::Counted counted(isAllocation ? 1 : 0);
        run(journal);
    }).join();
    EXPECT_EQ(journal.entries, kOpen + kRegister + GetParam().left + kLeave);
    EXPECT_EQ(whenReported, before);
}

INSTANTIATE_TEST_SUITE_P(Exception, ExceptionTest, testing::ValuesIn(kExceptions),
                         daemon_test::kCaseName);

TEST_F(StartTest, ReportsALineWithoutATimeAsAnUnknownException) {
    fake::fail("pktd_shm_queue_init", {1});
    fake::fail("localtime_r", {0, EOVERFLOW});
    EXPECT_EQ(start(), (kOpen + kRegister + kQueue + Lines{"\r\n", kUnknown} + kLeave));
}

TEST_F(StartTest, LogsNothingAboutAnUnknownExceptionIfErrorsAreSuppressed) {
    fake::on("usleep", [] { throw 5; });
    EXPECT_EQ(start(qv::ERROR - 1),
              (upTo(kStart, "usleep(500)") + Lines{"cfg_clear_pid()", "exit status 1"}));
}

/// Nothing is left to catch it, so the process would abort.
TEST_F(StartTest, IsLeftSilentlyByAnExceptionOfTheRegistration) {
    for (const std::string call : {"cfg_init", "cfg_add_pid", "updateTZ"}) {
        fake::on(call, [] { throw std::runtime_error("early"); });
        Journal journal(qv::WARNING);
        EXPECT_THROW(run(journal), std::runtime_error);
        EXPECT_EQ(journal.entries, upTo(kStart, call));
        fake::on(call, [] {});
    }
}

/// The handler's own line needs the time as well, and nothing is left to catch that.
TEST_F(StartTest, IsLeftByAnExceptionIfTheLastLinesCannotBeWritten) {
    fake::fail("localtime_r", {0, EOVERFLOW});
    fake::on("usleep", [] { throw qv::exception("woken"); });
    Journal journal(qv::WARNING);
    EXPECT_THROW(run(journal), std::runtime_error);
    EXPECT_EQ(journal.entries, upTo(kStart, "usleep(500)") + Lines{"\r\n"});
}

// Allocations that fail.

class ShortMemoryTest : public StartTest {
 protected:
    /// The start on another thread, whose n-th allocation fails; nothing is held after it.
    static Lines startWithout(int nth, bool onwards = false) {
        Journal journal(qv::WARNING);
        std::thread([&] {
            const allocations::Counted counted(nth, onwards);
            run(journal);
        }).join();
        EXPECT_EQ(allocations::alive(), 0);
        return journal.entries;
    }

    const std::string fails = "operator new fails";
    /// The last two lines are cut where the memory of their buffer ends.
    const Lines cutLeave = {
        fails, "14:03:07.2 ERRO", fails, "14:03:07.2 WARN", "cfg_clear_pid()", "exit status 1"};
};

TEST_F(ShortMemoryTest, ExitsWithoutMemoryForTheHandlerAndWorksTheThirdTime) {
    const Lines exits = kOpen + kRegister + Lines{fails, kUnknown} + kLeave;
    EXPECT_EQ(startWithout(1), exits);
    EXPECT_EQ(startWithout(1), exits);
    EXPECT_EQ(startWithout(0), kStart);
}

TEST_F(ShortMemoryTest, ExitsInTheSameWayWithoutMemoryForItsLastLines) {
    EXPECT_EQ(startWithout(2, true), kOpen + kAttach + kParked + cutLeave);
}

TEST_F(ShortMemoryTest, ExitsInTheSameWayWithoutAnyMemory) {
    EXPECT_EQ(startWithout(1, true), (kOpen + kRegister + Lines{fails} + cutLeave));
}

TEST_F(ShortMemoryTest, ContinuesWithoutMemoryToLogThatAnotherInstanceRuns) {
    fake::fail("flock", {-1, EWOULDBLOCK});
    EXPECT_EQ(startWithout(1), (kOpen + Lines{fails, "14:03:07.2 ERRO"} + kAttach + kEnd));
}

/// After the handler's allocation and the first line's, none is left to fail.
TEST_F(ShortMemoryTest, MakesTwoAllocationsInAll) {
    fake::fail("pktd_shm_queue_init", {-1});
    EXPECT_EQ(startWithout(3), (kOpen + kRegister + kQueue +
                                Lines{notAttached("140", "queue, ret=-1"), kNoShm} + kEnd));
}

}  // namespace
