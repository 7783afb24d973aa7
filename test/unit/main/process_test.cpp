// SPDX-License-Identifier: MIT
// The process entry as a process: the PID file and its lock, signals, and what it inherits.
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "daemon_test.h"
#include "qv_exception.h"

/// The daemon's main, under the name that the build gives it here.
extern "C" int pmtud_main();

namespace {

using testing::Eq;
using testing::ExitedWithCode;
using testing::KilledBySignal;

constexpr char kPidFile[] = "/var/run/pmtud.pid";

/// Each test runs the daemon as a child process on a machine whose /var/run is empty. What the
/// parked main thread does next is the test's choice.
class ProcessDeathTest : public daemon_test::FakesTest {
 protected:
    void SetUp() override {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "this needs root";
        ASSERT_EQ(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755"), 0);
    }

    static void whenParked(std::function<void()> action) { fake::on("usleep", std::move(action)); }

    static std::string pidFileContent() {
        std::ifstream file(kPidFile);
        EXPECT_TRUE(file.is_open());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// Takes a lock (LOCK_EX or LOCK_SH) if it is free, for as long as this process lives.
    static bool takesLock(int lock) {
        return flock(open(kPidFile, O_RDWR | O_CREAT, 0666), lock | LOCK_NB) == 0;
    }
};

TEST_F(ProcessDeathTest, CreatesAnEmptyPidFileWithMode0666LessTheUmask) {
    struct Mask {
        mode_t umask;
        mode_t mode;
    };
    whenParked([] { _exit(0); });
    const mode_t before = umask(0);
    for (const auto [mask, mode] : {Mask{0, 0666}, Mask{022, 0644}, Mask{077, 0600}}) {
        umask(mask);
        std::filesystem::remove(kPidFile);
        EXPECT_EXIT(pmtud_main(), ExitedWithCode(0), Eq(""));
        struct stat status {};
        EXPECT_EQ(stat(kPidFile, &status), 0);
        EXPECT_EQ(status.st_mode & 07777, mode);
        EXPECT_EQ(pidFileContent(), "");
    }
    umask(before);
}

TEST_F(ProcessDeathTest, HoldsAnExclusiveLockWhileItIsParked) {
    whenParked([] { _exit(takesLock(LOCK_SH) || takesLock(LOCK_EX) ? 1 : 0); });
    EXPECT_EXIT(pmtud_main(), ExitedWithCode(0), Eq(""));
}

TEST_F(ProcessDeathTest, LogsThatAnotherInstanceRunsAndStartsNevertheless) {
    whenParked([] { _exit(fake::platform().callback == nullptr ? 1 : 0); });
    ASSERT_TRUE(takesLock(LOCK_EX));
    EXPECT_EXIT(pmtud_main(), ExitedWithCode(0),
                Eq("14:03:07.2 ERROR: [main:52 | int main()] another instance is already "
                   "running\r\n"));
}

TEST_F(ProcessDeathTest, StartsSilentlyIfVarRunIsReadOnly) {
    ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    whenParked([] { _exit(0); });
    EXPECT_EXIT(pmtud_main(), ExitedWithCode(0), Eq(""));
    EXPECT_FALSE(std::filesystem::exists(kPidFile));
}

TEST_F(ProcessDeathTest, LeavesThePidFileAsItWasAndUnlockedWhenAnExceptionEndsIt) {
    std::ofstream(kPidFile) << "4711\n" << std::flush;
    whenParked([] { throw qv::exception("woken"); });
    EXPECT_EXIT(_exit(pmtud_main()), ExitedWithCode(1),
                Eq("14:03:07.2 ERROR: [main:75 | int main()] woken\r\n"
                   "14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n"));
    EXPECT_EQ(pidFileContent(), "4711\n");
    EXPECT_TRUE(takesLock(LOCK_EX));
}

class ASignalDeathTest : public ProcessDeathTest, public testing::WithParamInterface<int> {};

/// The default action, whatever this test's own caller has set. The PID file stays.
TEST_P(ASignalDeathTest, KillsItSilentlyAndTheNextIsTheOnlyInstance) {
    const auto before = signal(GetParam(), SIG_DFL);
    whenParked([] {
        raise(GetParam());
        _exit(1);
    });
    EXPECT_EXIT(pmtud_main(), KilledBySignal(GetParam()), Eq(""));
    signal(GetParam(), before);
    EXPECT_EQ(pidFileContent(), "");
    EXPECT_TRUE(takesLock(LOCK_EX));
}

INSTANTIATE_TEST_SUITE_P(Of, ASignalDeathTest,
                         testing::Values(SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGKILL),
                         [](const auto& instance) { return sigabbrev_np(instance.param); });

TEST_F(ProcessDeathTest, NeitherForksNorChangesWhatItInherited) {
    const auto inherited = [] {
        const auto directory = std::filesystem::current_path();
        const auto input = std::filesystem::read_symlink("/proc/self/fd/0");
        return std::tuple(getsid(0), getpgid(0), directory, input);
    };
    whenParked([parent = getpid(), before = inherited(), inherited] {
        std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
        const bool hasNoChild = children.is_open() && children.peek() == EOF;
        _exit(getppid() == parent && inherited() == before && hasNoChild ? 0 : 1);
    });
    EXPECT_EXIT(pmtud_main(), ExitedWithCode(0), Eq(""));
}

}  // namespace
