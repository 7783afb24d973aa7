// SPDX-License-Identifier: MIT
// The n-th allocation fails, for every n: lines, verdicts, descriptors, what stays held, what next.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QVLog.h"
#include "SHM_Wrapper.h"
#include "allocations.h"
#include "qv_exception.h"
#include "roads.h"

using allocations::Counted;
using faults::atWarning;
using faults::Daemon;
using faults::Failure;
using faults::Lines;
using faults::Road;
using faults::untroubled;
using faults::upTo;
using faults::World;
using faults::operator+;
using testing::Contains;

/// The daemon's main, under the name that the build gives it here.
extern "C" int pmtud_main();

namespace {

const std::string kFails = "operator new fails";
const std::string kThrows = "throws std::bad_alloc";

/// On a thread of its own, whose first line has no memory of an earlier one to be built in.
void onAFreshThread(const std::function<void()>& work) { std::thread(work).join(); }

// ---- a frame at WARNING, where few allocations are made

/// Where a frame may end for want of memory.
struct Shortage {
    const char* behind;  ///< the last entry before
    const char* cut;     ///< the line that was being built
};

struct Frame {
    Road road;
    const char* cutFirst;  ///< the first line, where it cannot grow
    std::vector<Shortage> shortages;
    int most;  ///< as many allocations at most does a thread's first frame make
};

std::ostream& operator<<(std::ostream& os, const Frame& frame) {
    return os << (frame.road == Road::kIpv4 ? "IPv4" : "IPv6");
}

const Frame kFrames[] = {
    {Road::kIpv4,
     "89 PMTUD-Prot: Re",
     {{"89 PMTUD-Prot: Received frame of size: 78", "89 PMTUD-Prot: Frame Src MAC: "},
      {"89 PMTUD-Prot: Received frame of size: 78",
       "89 PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: "}},
     3},
    {Road::kIpv6,
     "89 PMTUD-Prot: Re",
     {{"89 PMTUD-Prot: Received frame of size: 66", "89 PMTUD-Prot: Frame Src MAC: "},
      {"89 PMTUD-Prot: Received frame of size: 66",
       "89 PMTUD-Prot: Frame Src MAC: 00:00:5e:00:53:01, Dest MAC: "},
      {"89 PMTUD-Prot: Received IPv6 packet len 66:", "89 PMTUD-Prot:    From: "},
      {"89 PMTUD-Prot:    From: 2001:db8:0:10::a", "89 PMTUD-Prot:    To: "}},
     5},
};

class AFrameAtWarning : public testing::TestWithParam<Frame> {
 protected:
    Lines whole() const { return atWarning(untroubled(GetParam().road)); }

    /// All journals of a frame without memory, and the whole one.  A stream keeps to itself that
    /// its buffer cannot grow: the line is what fitted, and the frame goes on.
    std::vector<Lines> endings() const {
        Lines cutFirst = whole();
        cutFirst.at(0) = GetParam().cutFirst;
        std::vector<Lines> all = {whole(), Lines{kFails} + cutFirst};
        for (const auto& [behind, cut] : GetParam().shortages) {
            all.push_back(upTo(whole(), behind) + Lines{kFails, cut, kThrows});
        }
        return all;
    }

    Daemon daemon;
};

TEST_P(AFrameAtWarning, EndsAtALineTwiceInARowForEveryAllocationThatFailsAndTheThirdIsAnswered) {
    int failures = 0;
    for (bool failed = true; failed; ++failures) {
        World world(qv::WARNING);
        std::vector<Lines> journals;
        onAFreshThread([&] {
            // The second frame's first line is built in the memory of the first one's.
            for (const int nth : {failures + 1, failures}) {
                const Counted counted(nth);
                daemon.receive(world, GetParam().road);
                if (nth > failures) failed = counted.failed();
                const allocations::Paused paused;
                journals.push_back(world.takeJournal());
            }
            daemon.receive(world, GetParam().road);
        });
        EXPECT_THAT(endings(), Contains(journals.at(0))) << failures + 1;
        EXPECT_THAT(endings(), Contains(journals.at(1))) << failures + 1;
        EXPECT_EQ(world.journal, whole()) << failures + 1;
        EXPECT_TRUE(world.open.empty()) << failures + 1;
        EXPECT_EQ(allocations::alive(), 0) << failures + 1;
    }
    EXPECT_GE(failures, 2);
}

TEST_P(AFrameAtWarning, MakesNoMoreAllocationsThanThese) {
    World world(qv::WARNING);
    onAFreshThread([&] {
        const Counted counted(GetParam().most + 1);
        daemon.receive(world, GetParam().road);
    });
    EXPECT_EQ(world.journal, whole());
    EXPECT_EQ(allocations::alive(), 0);
}

INSTANTIATE_TEST_SUITE_P(Road, AFrameAtWarning, testing::ValuesIn(kFrames),
                         [](const auto& instance) {
                             return instance.param.road == Road::kIpv4 ? "OfIpv4" : "OfIpv6";
                         });

// ---- a frame at DEBUG4, where every line is built

/// A frame's journal, taken apart by where the allocation failed.
struct Account {
    Lines journal;  ///< without the failure's own entry
    std::optional<std::size_t> failedAt;
    std::set<int> open;

    bool threw() const { return journal.back() == kThrows; }
    bool has(const std::string& entry) const {
        return std::find(journal.begin(), journal.end(), entry) != journal.end();
    }
};

Account take(World& world) {
    Account account{world.takeJournal(), std::nullopt, world.open};
    world.open.clear();
    const auto failed = std::find(account.journal.begin(), account.journal.end(), kFails);
    if (failed == account.journal.end()) return account;
    account.failedAt = static_cast<std::size_t>(failed - account.journal.begin());
    account.journal.erase(failed);
    return account;
}

/// Whether `line` is `whole` with one piece left out.
bool lacksAPiece(const std::string& line, const std::string& whole) {
    if (line.size() >= whole.size()) return false;
    const auto parted = std::mismatch(line.begin(), line.end(), whole.begin()).first;
    return whole.ends_with(std::string(parted, line.end()));
}

class AFrameAtDebug4 : public testing::TestWithParam<Road> {
 protected:
    /// A whole journal: the road's, and two lines at DEBUG1 whose bytes are the processor's.
    Lines whole() {
        World world(qv::DEBUG4);
        daemon.receive(world, road);
        return world.takeJournal();
    }

    std::string opening() const {
        return road == Road::kIpv4 ? "socket(2, 3, 1)" : "arpd_icmp6_socket_create(bcm0.20)";
    }

    /// Fails each allocation of a frame in its turn, and hands over what became of it and of the
    /// frame behind it on the same thread.
    template <typename Check>
    int failEach(Check check) {
        for (int nth = 1;; ++nth) {
            World world(qv::DEBUG4);
            Account account;
            Lines next;
            onAFreshThread([&] {
                {
                    const Counted counted(nth);
                    daemon.receive(world, road);
                }
                account = take(world);
                daemon.receive(world, road);
                next = world.takeJournal();
            });
            if (!account.failedAt) return nth - 1;
            SCOPED_TRACE(nth);
            check(account, next);
            if (HasFailure()) return nth;
        }
    }

    Daemon daemon;
    const Road road = GetParam();
};

TEST_P(AFrameAtDebug4, IsTheRoadAtDebugAndTwoLinesMore) {
    Lines lines = whole();
    EXPECT_EQ(std::erase_if(lines,
                            [](const std::string& entry) {
                                return entry.starts_with("14:03:07.2 DEBUG1: ");
                            }),
              2U);
    EXPECT_EQ(lines, untroubled(road));
}

TEST_P(AFrameAtDebug4, ThrowsOrLosesAPieceOfOneLineForEveryAllocationThatFails) {
    const Lines all = whole();
    const int failures = failEach([&](const Account& account, const Lines&) {
        ASSERT_FALSE(account.journal.empty());
        const std::size_t count = account.journal.size() - (account.threw() ? 1 : 0);
        ASSERT_LE(count, all.size());
        if (!account.threw()) {
            EXPECT_EQ(count, all.size());
        }
        for (std::size_t i = 0; i < count; ++i) {
            if (i == account.failedAt) {
                EXPECT_TRUE(lacksAPiece(account.journal[i], all[i])) << account.journal[i];
            } else {
                EXPECT_EQ(account.journal[i], all[i]);
            }
        }
        if (account.threw()) {
            EXPECT_EQ(count, *account.failedAt + 1);
        }
    });
    EXPECT_GT(failures, 20);
}

TEST_P(AFrameAtDebug4, LeavesItsSocketOpenOnlyWhereItThrowsWhileThatIsOpen) {
    failEach([&](const Account& account, const Lines&) {
        const bool isOpen = account.has(opening()) && !account.has("close(5)");
        EXPECT_EQ(account.open, isOpen ? std::set<int>{5} : std::set<int>{});
        EXPECT_TRUE(!isOpen || account.threw());
    });
}

TEST_P(AFrameAtDebug4, IsAnsweredBehindOneThatFailed) {
    const Lines all = whole();
    failEach([&](const Account&, const Lines& next) { EXPECT_EQ(next, all); });
}

TEST_P(AFrameAtDebug4, HoldsNothingOnceItsThreadHasEnded) {
    failEach([](const Account&, const Lines&) { EXPECT_EQ(allocations::alive(), 0); });
    EXPECT_EQ(allocations::alive(), 0);
}

TEST_P(AFrameAtDebug4, HoldsOneLinesMemoryWhileItsThreadLives) {
    World world(qv::DEBUG4);
    onAFreshThread([&] {
        {
            const Counted counted(0);
            daemon.receive(world, road);
            daemon.receive(world, road);
        }
        EXPECT_EQ(allocations::alive(), 1);
    });
    EXPECT_EQ(allocations::alive(), 0);
}

TEST_P(AFrameAtDebug4, ThrowsWhereThereIsNoMemoryAtAllFromSomePointOn) {
    const Lines all = whole();
    for (int nth = 1; nth <= 20; ++nth) {
        World world(qv::DEBUG4);
        onAFreshThread([&] {
            {
                const Counted counted(nth, true);
                daemon.receive(world, road);
            }
            EXPECT_EQ(world.journal.back(), kThrows) << nth;
            EXPECT_TRUE(world.open.empty()) << nth;
            world.takeJournal();
            daemon.receive(world, road);
            EXPECT_EQ(world.journal, all) << nth;
        });
        EXPECT_EQ(allocations::alive(), 0) << nth;
    }
}

INSTANTIATE_TEST_SUITE_P(Road, AFrameAtDebug4, testing::Values(Road::kIpv4, Road::kIpv6),
                         [](const auto& instance) {
                             return instance.param == Road::kIpv4 ? "OfIpv4" : "OfIpv6";
                         });

// ---- the end of a line, which happens in a destructor: an exception there would end the process

template <typename Logger, typename Begin>
void endLinesOfEveryLength(Begin begin, const std::function<void(std::size_t, bool)>& check) {
    for (std::size_t length = 0; length <= 2100; ++length) {
        onAFreshThread([&] {
            std::optional<Logger> logger(std::in_place);
            begin(*logger) << std::string(length, 'x');
            bool failed = false;
            {
                const Counted counted(1, true);
                logger.reset();
                failed = counted.failed();
            }
            check(length, failed);
        });
    }
    EXPECT_EQ(allocations::alive(), 0);
}

TEST(TheEndOfALine, AllocatesNothingForTheDebugProcess) {
    World world(qv::WARNING);
    const auto begin = [](qv::QVDebugProcLog& log) -> std::ostream& { return log.get(89, "name"); };
    endLinesOfEveryLength<qv::QVDebugProcLog>(begin, [&](std::size_t length, bool failed) {
        EXPECT_FALSE(failed) << length;
        EXPECT_EQ(world.takeJournal(), Lines{"89 name: " + std::string(length, 'x')});
    });
}

/// What is lost where the buffer is full is the CR LF or its LF.
TEST(TheEndOfALine, IsAllThatAFileLineLosesWhereItsBufferIsFull) {
    World world(qv::WARNING);
    const auto begin = [](qv::QVDevLog& log) -> std::ostream& {
        return log.get("f", 1, "g", qv::ERROR);
    };
    const std::string prefix = "14:03:07.2 ERROR: [f:1 | g] ";
    std::size_t losses = 0;
    endLinesOfEveryLength<qv::QVDevLog>(begin, [&](std::size_t length, bool failed) {
        const std::string text = prefix + std::string(length, 'x');
        const Lines lines = world.takeJournal();
        ASSERT_EQ(lines.size(), failed ? 2U : 1U) << length;
        if (!failed) {
            EXPECT_EQ(lines[0], text + "\r\n");
            return;
        }
        ++losses;
        EXPECT_EQ(lines[0], kFails);
        EXPECT_TRUE(lines[1] == text || lines[1] == text + "\r") << length;
    });
    EXPECT_GT(losses, 0U);
    EXPECT_LT(losses, 20U);
}

/// The line is what its buffer held, and no statement of this kind throws.
TEST(ALineOfPlainText, IsCutWhereItsBufferCannotGrow) {
    World world(qv::WARNING);
    onAFreshThread([&] {
        const Counted counted(1, true);
        qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "text";
        qv::QVDebugProcLog().get(89, "name") << "a text that is long";
    });
    EXPECT_EQ(world.journal, (Lines{kFails, "14:03:07.2 ERRO", kFails, "89 name: a text t"}));
    EXPECT_EQ(allocations::alive(), 0);
}

// ---- the start

const std::string kQueueInit = "pktd_shm_queue_init(pmtud, 0, 1, tx pool, rx pool)";
const std::string kThreadInit =
    "pktd_shm_rx_thread_init(pmtud, rx pool, rx wl pool, 32, 32, callback, 0)";
const std::string kExiting = "14:03:07.2 WARNING: [main:84 | int main()] Exiting app\r\n";
const std::string kUnknown =
    "14:03:07.2 ERROR: [main:79 | int main()] unknown exception caught\r\n";
const std::string kNoQueue =
    "14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()] "
    "Could not initialize SHM queue, ret=-1\r\n";
const std::string kNoShm =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";

TEST(TheAdapter, IsMadeWithoutMemory) {
    bool failed = true;
    {
        const Counted counted(1, true);
        getShmWrapperApp();
        failed = counted.failed();
    }
    EXPECT_FALSE(failed);
}

TEST(TheApplication, IsNotMadeAndNotRegisteredWithoutMemoryForItsHandler) {
    World world(qv::DEBUG4);
    VlanConfig cfg;
    getShmWrapperApp()->setHandler(nullptr);
    {
        const Counted counted(1);
        EXPECT_THROW(PMTUDApp(&cfg, getShmWrapperApp()), std::bad_alloc);
    }
    EXPECT_EQ(world.takeJournal(), Lines{kFails});
    EXPECT_EQ(allocations::alive(), 0);
    // No handler: not one line of the engine.
    Daemon::receive(world, Road::kIpv4);
    EXPECT_EQ(
        std::count_if(world.journal.begin(), world.journal.end(),
                      [](const std::string& entry) { return entry.find("PMTUD") != entry.npos; }),
        0);
    EXPECT_EQ(world.journal.back(), "verdict 7");
}

TEST(TheApplication, IsMadeByOneAllocationAndHoldsNothingBehindItsEnd) {
    VlanConfig cfg;
    {
        const Counted counted(2);
        const PMTUDApp app(&cfg, getShmWrapperApp());
        EXPECT_FALSE(counted.failed());
        EXPECT_EQ(allocations::alive(), 1);
    }
    EXPECT_EQ(allocations::alive(), 0);
    getShmWrapperApp()->setHandler(nullptr);
}

TEST(TheRunShortOfMemory, LosesOfItsFirstLineWhatDoesNotFitAndAttachesAllTheSame) {
    World world(qv::DEBUG4);
    Daemon daemon;
    bool attached = false;
    onAFreshThread([&] {
        const Counted counted(1);
        attached = daemon.app().run();
    });
    EXPECT_TRUE(attached);
    EXPECT_EQ(world.journal,
              (Lines{kFails, "14:03:07.2 DEBU",
                     "14:03:07.2 DEBUG: [SHM_Wrapper:135 | virtual bool SHM_Wrapper_App::init()] "
                     "initializing\r\n",
                     kQueueInit, kThreadInit}));
}

TEST(TheRunShortOfMemory, FailsInTheSameWayWithoutMemoryForItsLines) {
    World world(qv::WARNING);
    world.fail("pktd_shm_queue_init", Failure{-1});
    Daemon daemon;
    bool attached = true;
    onAFreshThread([&] {
        const Counted counted(1, true);
        attached = daemon.app().run();
    });
    EXPECT_FALSE(attached);
    EXPECT_EQ(world.journal,
              (Lines{kQueueInit, kFails, "14:03:07.2 ERRO", kFails, "14:03:07.2 ERRO"}));
}

/// The process entry on a fresh thread, the n-th allocation failing; its sleep ends by an
/// exception.
Lines journalOfStart(World& world, int nth, bool onwards = false) {
    world.hooks["usleep"] = [] { throw qv::exception("woken"); };
    int status = -1;
    onAFreshThread([&] {
        const Counted counted(nth, onwards);
        status = pmtud_main();
    });
    world.journal.push_back("exit status " + std::to_string(status));
    return world.takeJournal();
}

const Lines kBegin = {"open(/var/run/pmtud.pid, 66, 438)", "flock(5, 6)"};
const Lines kRegister = {"cfg_init()", "cfg_add_pid(pmtud)", "updateTZ()"};
const Lines kLeave = {kExiting, "cfg_clear_pid()", "exit status 1"};

TEST(TheProcessEntryShortOfMemory, ExitsWithoutMemoryForTheHandlerAndWorksTheThirdTime) {
    World world(qv::WARNING);
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(journalOfStart(world, 1),
                  (kBegin + kRegister + Lines{kFails, kUnknown} + kLeave));
        EXPECT_EQ(world.open, std::set<int>{5});
        EXPECT_EQ(allocations::alive(), 0);
        world.open.clear();
    }
    EXPECT_EQ(journalOfStart(world, 0),
              (kBegin + kRegister +
               Lines{kQueueInit, kThreadInit, "usleep(500)",
                     "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n"} +
               kLeave));
    EXPECT_EQ(allocations::alive(), 0);
}

TEST(TheProcessEntryShortOfMemory, ExitsInTheSameWayWithoutMemoryForItsLastLines) {
    World world(qv::WARNING);
    EXPECT_EQ(journalOfStart(world, 2, true),
              (kBegin + kRegister +
               Lines{kQueueInit, kThreadInit, "usleep(500)", kFails, "14:03:07.2 ERRO", kFails,
                     "14:03:07.2 WARN", "cfg_clear_pid()", "exit status 1"}));
    EXPECT_EQ(world.open, std::set<int>{5});
    EXPECT_EQ(allocations::alive(), 0);
}

TEST(TheProcessEntryShortOfMemory, ExitsInTheSameWayWithoutAnyMemory) {
    World world(qv::WARNING);
    EXPECT_EQ(journalOfStart(world, 1, true),
              (kBegin + kRegister +
               Lines{kFails, kFails, "14:03:07.2 ERRO", kFails, "14:03:07.2 WARN",
                     "cfg_clear_pid()", "exit status 1"}));
    EXPECT_EQ(allocations::alive(), 0);
}

TEST(TheProcessEntryShortOfMemory, GoesOnWithoutMemoryToSayThatAnotherInstanceRuns) {
    World world(qv::WARNING);
    world.fail("flock", Failure{-1, EWOULDBLOCK});
    EXPECT_EQ(journalOfStart(world, 1),
              (kBegin + Lines{kFails, "14:03:07.2 ERRO"} + kRegister +
               Lines{kQueueInit, kThreadInit, "usleep(500)",
                     "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n"} +
               kLeave));
    EXPECT_EQ(allocations::alive(), 0);
}

/// Behind the handler's allocation and the first line's, none is left to fail.
TEST(TheProcessEntryShortOfMemory, MakesTwoAllocationsInAll) {
    World world(qv::WARNING);
    world.fail("pktd_shm_queue_init", Failure{-1});
    EXPECT_EQ(journalOfStart(world, 3),
              (kBegin + kRegister +
               Lines{kQueueInit, kNoQueue, kNoShm, "usleep(500)",
                     "14:03:07.2 ERROR: [main:75 | int main()] woken\r\n"} +
               kLeave));
    EXPECT_EQ(allocations::alive(), 0);
}

}  // namespace
