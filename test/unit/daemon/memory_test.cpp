// SPDX-License-Identifier: MIT
// The n-th allocation fails, for every n: lines, verdicts, descriptors, what remains allocated, and
// what happens next.
#include <gmock/gmock.h>

#include <algorithm>
#include <new>
#include <optional>
#include <thread>

#include "allocations.h"
#include "run.h"

namespace {

using allocations::Counted;
using fake::Journal;
using run::golden;
using run::goldenAtWarning;
using run::ipv4;
using run::ipv6;
using run::Lines;
using run::upTo;
using run::operator+;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Matches;
using testing::Not;
using testing::StartsWith;

const std::string kFails = "operator new fails";
const std::string kThrows = "throws std::bad_alloc";

/// On another thread, because this one's next line could be built in the memory of its last.
void onAFreshThread(const std::function<void()>& work) { std::thread(work).join(); }

// At WARNING, when few allocations are made.

/// Where a lack of memory may end a frame: the last entry before that, and the line being built.
struct Shortage {
    const char* before;
    const char* cut;
};

constexpr Shortage kShortages[] = {
    {"89 PMTUD-Prot: Received frame of size", "89 PMTUD-Prot: Frame Src MAC: "},
    {"89 PMTUD-Prot: Received frame of size",
     "89 PMTUD-Prot: Frame Src MAC: 02:00:00:00:00:0a, Dest MAC: "},
    // The texts of the addresses; those of IPv4 fit without an allocation.
    {"89 PMTUD-Prot: Received IPv6 packet len", "89 PMTUD-Prot:    From: "},
    {"89 PMTUD-Prot:    From: ", "89 PMTUD-Prot:    To: "},
};

class FrameAtWarning : public run::AnsweredFrame {
 protected:
    /// Whether this may be a frame's journal when memory runs out. A stream does not report that
    /// its buffer cannot grow: the line is cut to what fitted, and handling continues.
    bool mayBe(const Lines& journal) const {
        Lines cutFirst = whole;
        cutFirst.at(0) = "89 PMTUD-Prot: Re";
        if (journal == whole || journal == Lines{kFails} + cutFirst) return true;
        const size_t count = &frame == &ipv4() ? 2 : 4;
        return std::any_of(kShortages, kShortages + count, [&](const Shortage& shortage) {
            return journal == upTo(whole, shortage.before) + Lines{kFails, shortage.cut, kThrows};
        });
    }

    const Lines whole = goldenAtWarning(frame);
};

TEST_P(FrameAtWarning, EndsAtALineTwiceInARowForEveryAllocationThatFailsAndTheThirdIsAnswered) {
    int failures = 0;
    for (bool failed = true; failed; ++failures) {
        Journal journal(qv::WARNING);
        onAFreshThread([&] {
            // The second frame's first line is built in the memory of the first one's.
            for (const int nth : {failures + 1, failures}) {
                {
                    const Counted counted(nth);
                    receive(journal, frame);
                    if (nth > failures) failed = counted.failed();
                }
                EXPECT_TRUE(mayBe(journal.take())) << failures + 1;
            }
            receive(journal, frame);
        });
        EXPECT_EQ(journal.entries, whole) << failures + 1;
        EXPECT_TRUE(fake::openSockets.empty()) << failures + 1;
        EXPECT_EQ(allocations::alive(), 0) << failures + 1;
    }
    // The most that a thread's first frame makes, and the round that saw no failure.
    EXPECT_GE(failures, 2);
    EXPECT_LE(failures, &frame == &ipv4() ? 4 : 6);
}

INSTANTIATE_TEST_SUITE_P(Family, FrameAtWarning, run::kAnsweredFrames, run::kFamily);

// At DEBUG4, when every line is built.

/// Whether `line` is `whole` with one piece left out.
bool lacksAPiece(const std::string& line, const std::string& whole) {
    if (line.size() >= whole.size()) return false;
    const auto parted = std::mismatch(line.begin(), line.end(), whole.begin()).first;
    return whole.ends_with(std::string(parted, line.end()));
}

class FrameAtDebug4 : public run::AnsweredFrame {
 protected:
    /// A whole journal: the golden one, and two lines at DEBUG1 whose bytes are the processor's.
    Lines wholeJournal() {
        Journal journal(qv::DEBUG4);
        receive(journal, frame);
        return journal.entries;
    }

    static bool isOpenAfter(const Lines& entries) {
        const auto opens = AnyOf(StartsWith("socket("), StartsWith("arpd_icmp6_socket_create("));
        return Matches(AllOf(Contains(opens), Not(Contains(StartsWith("close(")))))(entries);
    }

    /// What a frame with a failed allocation leaves.
    void check(Lines journal, const Lines& whole) const {
        const auto failed = std::find(journal.begin(), journal.end(), kFails);
        const auto failedAt = static_cast<size_t>(failed - journal.begin());
        journal.erase(failed);
        const bool threw = journal.back() == kThrows;
        if (threw) journal.pop_back();
        EXPECT_EQ(journal.size(), threw ? failedAt + 1 : whole.size());
        for (size_t i = 0; i < journal.size(); ++i) {
            EXPECT_TRUE(i == failedAt ? lacksAPiece(journal[i], whole[i]) : journal[i] == whole[i])
                << journal[i];
        }
        EXPECT_EQ(fake::openSockets.size(), isOpenAfter(journal) ? 1U : 0U);
        EXPECT_TRUE(threw || fake::openSockets.empty());
    }
};

TEST_P(FrameAtDebug4, LogsTheGoldenLinesAndTwoMore) {
    Lines lines = wholeJournal();
    const auto isDump = [](const std::string& entry) {
        return entry.starts_with("14:03:07.2 DEBUG1: ");
    };
    EXPECT_EQ(std::erase_if(lines, isDump), 2U);
    EXPECT_EQ(lines, golden(frame));
}

TEST_P(FrameAtDebug4, ThrowsOrLosesAPieceOfOneLineForEveryAllocationThatFails) {
    const Lines whole = wholeJournal();
    int nth = 0;
    for (bool failed = true; failed && !HasFailure();) {
        SCOPED_TRACE(++nth);
        Journal journal(qv::DEBUG4);
        onAFreshThread([&] {
            {
                const Counted counted(nth);
                receive(journal, frame);
                failed = counted.failed();
            }
            if (failed) check(journal.take(), whole);
            if (!failed) journal.take();
            fake::openSockets.clear();
            receive(journal, frame);
        });
        EXPECT_EQ(journal.entries, whole);
        EXPECT_EQ(allocations::alive(), 0);
    }
    EXPECT_GT(nth, 20);
}

TEST_P(FrameAtDebug4, HoldsOneLinesMemoryWhileItsThreadLives) {
    Journal journal(qv::DEBUG4);
    onAFreshThread([&] {
        {
            const Counted counted;
            receive(journal, frame);
            receive(journal, frame);
        }
        EXPECT_EQ(allocations::alive(), 1);
    });
    EXPECT_EQ(allocations::alive(), 0);
}

TEST_P(FrameAtDebug4, ThrowsIfEveryAllocationFailsFromSomePointOn) {
    const Lines whole = wholeJournal();
    for (int nth = 1; nth <= 20; ++nth) {
        Journal journal(qv::DEBUG4);
        onAFreshThread([&] {
            {
                const Counted counted(nth, true);
                receive(journal, frame);
            }
            EXPECT_EQ(journal.take().back(), kThrows) << nth;
            EXPECT_TRUE(fake::openSockets.empty()) << nth;
            receive(journal, frame);
            EXPECT_EQ(journal.entries, whole) << nth;
        });
        EXPECT_EQ(allocations::alive(), 0) << nth;
    }
}

INSTANTIATE_TEST_SUITE_P(Family, FrameAtDebug4, run::kAnsweredFrames, run::kFamily);

// The end of a line happens in a destructor: an exception there would end the process.

/// A line that ends while every allocation fails.
template <typename Logger, typename... Beginning>
Lines endedLine(const std::string& text, const Beginning&... beginning) {
    Journal journal(qv::WARNING);
    onAFreshThread([&] {
        std::optional<Logger> logger(std::in_place);
        logger->get(beginning...) << text;
        const Counted counted(1, true);
        logger.reset();
    });
    return journal.entries;
}

TEST(TheEndOfALine, AllocatesNothingForTheDebugProcess) {
    for (size_t length = 0; length <= 2100; ++length) {
        const std::string text(length, 'x');
        EXPECT_EQ(endedLine<qv::QVDebugProcLog>(text, 89U, "name"), Lines{"89 name: " + text});
    }
    EXPECT_EQ(allocations::alive(), 0);
}

/// If the buffer is full, the CR LF is lost, or only its LF.
TEST(TheEndOfALine, IsAllThatAFileLineLosesIfItsBufferIsFull) {
    int losses = 0;
    for (size_t length = 0; length <= 2100; ++length) {
        const std::string text(length, 'x');
        const Lines entries = endedLine<qv::QVDevLog>(text, "f", 1, "g", qv::ERROR);
        const std::string line = "14:03:07.2 ERROR: [f:1 | g] " + text;
        if (entries == Lines{line + "\r\n"}) continue;
        ++losses;
        EXPECT_TRUE(entries == (Lines{kFails, line}) || entries == (Lines{kFails, line + "\r"}));
    }
    EXPECT_GT(losses, 0);
    EXPECT_LT(losses, 20);
    EXPECT_EQ(allocations::alive(), 0);
}

/// The line is what its buffer held, and no statement of this kind throws.
TEST(ALineOfPlainText, IsCutIfItsBufferCannotGrow) {
    Journal journal(qv::WARNING);
    onAFreshThread([] {
        const Counted counted(1, true);
        qv::QVDevLog().get("f", 1, "g", qv::ERROR) << "text";
        qv::QVDebugProcLog().get(89, "name") << "a text that is long";
    });
    EXPECT_EQ(journal.entries, (Lines{kFails, "14:03:07.2 ERRO", kFails, "89 name: a text t"}));
    EXPECT_EQ(allocations::alive(), 0);
}

// The objects.

TEST(TheAdapter, AllocatesNothing) {
    const Counted counted(1, true);
    getShmWrapperApp();
    EXPECT_FALSE(counted.failed());
}

class TheApplication : public run::Daemon {};

TEST_F(TheApplication, LosesTheEndOfItsFirstLineIfMemoryIsShortAndAttachesNevertheless) {
    Journal journal(qv::DEBUG4);
    onAFreshThread([&] {
        const Counted counted(1);
        EXPECT_TRUE(app.run());
    });
    EXPECT_EQ(journal.entries.at(1), "14:03:07.2 DEBU");
    EXPECT_EQ(journal.entries.size(), 5U);
}

}  // namespace
