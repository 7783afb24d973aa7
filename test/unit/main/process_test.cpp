// SPDX-License-Identifier: MIT
// The process entry: start-up, single instance, parking, the last-resort handlers, and the end.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "daemon_process.h"
#include "private_machine.h"

namespace {

const std::string kOpenAndLock =
    "open(\"/var/run/pmtud.pid\", 0x42, 0666)\n"
    "flock(pidFile, 6)\n";
const std::string kRegister =
    "cfg_init()\n"
    "cfg_add_pid(\"pmtud\")\n"
    "updateTZ()\n";
const std::string kAttachQueue =
    "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)\n";
const std::string kStartThread =
    "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback, "
    "0)\n";
// The application allocates its frame handler, and frees it.
const std::string kConstruct = "operator new\n";
const std::string kDestroy = "operator delete\n";
const std::string kPark = "usleep(500)\n";
const std::string kUntouchedStart =
    kOpenAndLock + kRegister + kConstruct + kAttachQueue + kStartThread + kPark;

const std::string kUnknown =
    "14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n";
const std::string kExiting = "14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n";
const std::string kNotAttached =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";

class ProcessEntry : public testing::Test {
 protected:
    void SetUp() override { enterPrivateMachine(); }

    /// Starts the daemon, waits until its main thread sleeps, and gives the log up to there.
    static std::string logOfStart(const Start& start) {
        DaemonProcess daemon(start);
        return daemon.logUntil("usleep(500)");
    }

    /// Starts a daemon that ends by itself.
    static Ending endingOf(const std::string& statements) {
        DaemonProcess daemon(play(statements));
        return daemon.ending();
    }
};

// ---- start-up

TEST_F(ProcessEntry, LocksRegistersConstructsAttachesAndParksInThisOrder) {
    DaemonProcess daemon(play(""));
    EXPECT_EQ(daemon.logUntil("usleep(500)"),
              "open(\"/var/run/pmtud.pid\", 0x42, 0666)\n"
              "flock(pidFile, 6)\n"
              "cfg_init()\n"
              "cfg_add_pid(\"pmtud\")\n"
              "updateTZ()\n"
              "operator new\n"
              "pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)\n"
              "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, "
              "callback, 0)\n"
              "usleep(500)\n");
    EXPECT_EQ(daemon.standardOutput(), "");
}

TEST_F(ProcessEntry, SleepsInStepsOf500MicrosecondsUntilAnExceptionEndsTheLoop) {
    // The log shows a sleep only where it differs from the one before.
    EXPECT_EQ(endingOf("throw usleep 1000 qv woken\n"),
              (Ending{"exit status 1", kUntouchedStart + kDestroy +
                                           "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n" +
                                           kExiting + "cfg_clear_pid()\n"}));
}

TEST_F(ProcessEntry, IgnoresItsCommandLine) {
    Start start = play("");
    start.arguments = {"--help", "-d", "--pid-file=/run/other.pid", "stop"};
    EXPECT_EQ(logOfStart(start), kUntouchedStart);
}

TEST_F(ProcessEntry, IgnoresItsEnvironment) {
    Start start = play("answer pktd_shm_queue_init 1\n");
    start.environment = {{"PMTUD_LOG_LEVEL", "DEBUG4"},
                         {"PMTUD_PID_FILE", "/run/other.pid"},
                         {"LOG_LEVEL", "7"},
                         {"DEBUG", "1"},
                         {"LC_ALL", "en_US.UTF-8"},
                         {"PIDFILE", "/run/other.pid"}};
    EXPECT_EQ(logOfStart(start),
              kOpenAndLock + kRegister + kConstruct + kAttachQueue +
                  "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()] "
                  "Could not initialize SHM queue, ret=1\r\n" +
                  kNotAttached + kPark);
}

// ---- the PID file

class ThePidFileIsCreated : public ProcessEntry,
                            public testing::WithParamInterface<std::array<mode_t, 2>> {};

TEST_P(ThePidFileIsCreated, EmptyAndWithMode0666LessTheUmask) {
    const auto [umask, mode] = GetParam();
    Start start = play("");
    start.umask = umask;
    logOfStart(start);
    EXPECT_EQ(pid_file::mode(), mode);
    EXPECT_EQ(pid_file::content(), "");
}

INSTANTIATE_TEST_SUITE_P(Umask, ThePidFileIsCreated,
                         testing::Values(std::array<mode_t, 2>{0, 0666},
                                         std::array<mode_t, 2>{022, 0644},
                                         std::array<mode_t, 2>{077, 0600}));

TEST_F(ProcessEntry, HoldsAnExclusiveLockWhileItIsParked) {
    DaemonProcess daemon(play(""));
    daemon.logUntil("usleep(500)");
    EXPECT_FALSE(pid_file::isFreeFor(LOCK_EX));
    EXPECT_FALSE(pid_file::isFreeFor(LOCK_SH));
}

TEST_F(ProcessEntry, StartsInSilenceWhereVarRunIsReadOnly) {
    makeRunReadOnly();
    DaemonProcess daemon(play(""));
    EXPECT_EQ(daemon.logUntil("usleep(500)"),
              "open(\"/var/run/pmtud.pid\", 0x42, 0666)\n"
              "flock(-1, 6)\n" +
                  kRegister + kConstruct + kAttachQueue + kStartThread + kPark);
    EXPECT_FALSE(pid_file::exists());
}

// ---- a second instance

TEST_F(ProcessEntry, SaysThatAnotherInstanceRunsAndStartsAllTheSame) {
    DaemonProcess first(play(""));
    EXPECT_EQ(first.logUntil("usleep(500)"), kUntouchedStart);
    DaemonProcess second(play(""));
    EXPECT_EQ(second.logUntil("usleep(500)"),
              kOpenAndLock +
                  "14:03:07.2 ERROR: [main:52 | int main()] another instance is already "
                  "running\r\n" +
                  kRegister + kConstruct + kAttachQueue + kStartThread + kPark);
    EXPECT_TRUE(first.isRunning());
}

TEST_F(ProcessEntry, HandlesFramesAsASecondInstance) {
    DaemonProcess first(play(""));
    first.logUntil("usleep(500)");
    DaemonProcess second(play("frame 020000000001 02000000000a 8100000a 0806\n"));
    second.logUntil("usleep(500)");
    EXPECT_NE(second.logUntil("frames done").find("verdict 7\n"), std::string::npos);
}

TEST_F(ProcessEntry, IsTheOnlyInstanceAgainOnceTheFirstIsKilled) {
    DaemonProcess first(play(""));
    first.logUntil("usleep(500)");
    first.signal(SIGKILL);
    EXPECT_EQ(first.ending(), (Ending{"signal 9", ""}));
    EXPECT_EQ(logOfStart(play("")), kUntouchedStart);
}

// ---- the queues cannot be attached

TEST_F(ProcessEntry, ParksWithoutFramesWhereTheQueueCannotBeAttached) {
    DaemonProcess daemon(play("answer pktd_shm_queue_init 1\n"));
    EXPECT_EQ(daemon.logUntil("usleep(500)"),
              kOpenAndLock + kRegister + kConstruct + kAttachQueue +
                  "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()] "
                  "Could not initialize SHM queue, ret=1\r\n"
                  "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] "
                  "Could not initialize SHM\r\n"
                  "usleep(500)\n");
    EXPECT_FALSE(pid_file::isFreeFor(LOCK_EX));
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.ending(), (Ending{"signal 15", ""}));
}

// ---- exceptions

struct Exception {
    const char* name;
    const char* statements;
    std::string log;  ///< between registration and exit
};

void PrintTo(const Exception& exception, std::ostream* os) { *os << exception.name; }

class AnException : public ProcessEntry, public testing::WithParamInterface<Exception> {};

/// The PID file stays, as it was and unlocked.
TEST_P(AnException, IsReportedAfterTheApplicationIsDestroyedAndEndsTheProcess) {
    pid_file::write("4711\n");
    DaemonProcess daemon(play(GetParam().statements));
    EXPECT_EQ(daemon.ending(),
              (Ending{"exit status 1", kOpenAndLock + kRegister + kConstruct + GetParam().log +
                                           kExiting + "cfg_clear_pid()\n"}));
    EXPECT_EQ(daemon.standardOutput(), "");
    EXPECT_EQ(pid_file::content(), "4711\n");
    EXPECT_TRUE(pid_file::isFreeFor(LOCK_EX));
}

std::string reported(const std::string& text) {
    return "14:03:07.2 ERROR: [main:75 | int main()] " + text + "\r\n";
}

// A line whose time cannot be read ends empty, and the exception passes through run().
INSTANTIATE_TEST_SUITE_P(
    Of, AnException,
    testing::Values(
        Exception{"TheConstructor", "throw new 1 qv no memory\n", reported("no memory")},
        Exception{"TheConstructorOfAnotherClass", "throw new 1 std no memory\n", kUnknown},
        Exception{"TheConstructorOfNoClass", "throw new 1 int 5\n", kUnknown},
        Exception{"NoText", "throw new 1 qv\n", reported("")},
        Exception{"ATextThatLooksLikeAFormat", "throw new 1 qv 100% of %s, \"%n\"  [x] \n",
                  reported("100% of %s, \"%n\"  [x] ")},
        Exception{"TheRun", "throw pktd_shm_queue_init 1 qv queue gone\n",
                  kAttachQueue + kDestroy + reported("queue gone")},
        Exception{"TheRunOfAnotherClass", "throw pktd_shm_rx_thread_init 1 std no thread\n",
                  kAttachQueue + kStartThread + kDestroy + kUnknown},
        Exception{"TheSleepOfAnotherClass", "throw usleep 1 std woken\n",
                  kAttachQueue + kStartThread + kPark + kDestroy + kUnknown},
        Exception{"ALineWithoutATime", "answer pktd_shm_queue_init 1\nfail localtime_r 1 75\n",
                  kAttachQueue + "\r\n" + kDestroy + kUnknown}),
    [](const auto& instance) { return std::string(instance.param.name); });

class AnExceptionBeforeTheGuardedRegion : public ProcessEntry,
                                          public testing::WithParamInterface<const char*> {};

TEST_P(AnExceptionBeforeTheGuardedRegion, AbortsWithoutALine) {
    const Ending ending = endingOf("throw " + std::string(GetParam()) + " 1 std early\n");
    EXPECT_EQ(ending.how, "signal 6");
    EXPECT_EQ(ending.log.find("14:03:07.2"), std::string::npos) << ending.log;
    EXPECT_EQ(ending.log.find("cfg_clear_pid"), std::string::npos) << ending.log;
}

INSTANTIATE_TEST_SUITE_P(Of, AnExceptionBeforeTheGuardedRegion,
                         testing::Values("cfg_init", "cfg_add_pid", "updateTZ"),
                         [](const auto& instance) { return std::string(instance.param); });

// ---- signals, and the place of the process

class ASignalKillsIt : public ProcessEntry, public testing::WithParamInterface<int> {};

TEST_P(ASignalKillsIt, WithItsDefaultActionAndNoWord) {
    DaemonProcess daemon(play(""));
    daemon.logUntil("usleep(500)");
    daemon.signal(GetParam());
    EXPECT_EQ(daemon.ending(), (Ending{"signal " + std::to_string(GetParam()), ""}));
    EXPECT_EQ(pid_file::content(), "");
    EXPECT_TRUE(pid_file::isFreeFor(LOCK_EX));
}

INSTANTIATE_TEST_SUITE_P(Signal, ASignalKillsIt, testing::Values(SIGTERM, SIGINT, SIGHUP, SIGUSR1),
                         [](const auto& instance) {
                             return std::string(sigabbrev_np(instance.param));
                         });

TEST_F(ProcessEntry, StaysTheProcessThatWasStartedInTheSessionAndGroupOfItsParent) {
    DaemonProcess daemon(play(""));
    daemon.logUntil("usleep(500)");
    EXPECT_TRUE(daemon.isRunning());
    EXPECT_EQ(getsid(daemon.pid()), getsid(0));
    EXPECT_EQ(getpgid(daemon.pid()), getpgid(0));
}

TEST_F(ProcessEntry, HasNoChild) {
    DaemonProcess daemon(play(""));
    daemon.logUntil("usleep(500)");
    const std::string pid = std::to_string(daemon.pid());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    ASSERT_TRUE(children);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(children), {}), "");
}

TEST_F(ProcessEntry, KeepsItsDirectoryAndItsStandardInput) {
    DaemonProcess daemon(play(""));
    daemon.logUntil("usleep(500)");
    const std::filesystem::path own = "/proc/self";
    const std::filesystem::path its = "/proc/" + std::to_string(daemon.pid());
    EXPECT_EQ(read_symlink(its / "cwd"), read_symlink(own / "cwd"));
    EXPECT_EQ(read_symlink(its / "fd/0"), read_symlink(own / "fd/0"));
}

// ---- the scripted platform itself

class ABadScript : public ProcessEntry, public testing::WithParamInterface<const char*> {};

TEST_P(ABadScript, IsRefusedWithTheNumberOfItsBadLine) {
    DaemonProcess daemon({.script = "# a remark\n" + std::string(GetParam()) + "\nend\n"});
    const Ending ending = daemon.ending();
    EXPECT_EQ(ending.how, "exit status 2");
    EXPECT_TRUE(ending.log.starts_with("pmtud-scripted: /proc/self/fd/100:2: ")) << ending.log;
}

INSTANTIATE_TEST_SUITE_P(With, ABadScript,
                         testing::Values("anwser cfg_init 1", "answer", "answer cfg_exit 1",
                                         "answer cfg_init one", "answer cfg_init 2147483648",
                                         "answer cfg_init 1 2", "mtu 20 -1", "throw open 1 qv x",
                                         "throw cfg_init 0 qv x", "throw cfg_init 1 bad_alloc",
                                         "fail cfg_init 1 5", "fail open 1 0", "clock 14:03:07",
                                         "arpd fake", "record unit", "record colour=1",
                                         "record trunk=256", "frame 020", "frame 0g", "end now"));

TEST_F(ProcessEntry, IsNotReachedByAScriptWithoutEndOrWithMoreAfterIt) {
    DaemonProcess endless({.script = "# nothing\n"});
    EXPECT_EQ(endless.ending(),
              (Ending{"exit status 2", "pmtud-scripted: /proc/self/fd/100:2: no 'end'\n"}));
    DaemonProcess surplus({.script = "end\n\nmtu 1 1500\n"});
    EXPECT_EQ(surplus.ending().how, "exit status 2");
}

}  // namespace
