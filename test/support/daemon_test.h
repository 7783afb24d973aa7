// SPDX-License-Identifier: MIT
// What the daemon's unit tests share: freshly reset fakes, captured logs, the journal.
#ifndef PMTUD_TEST_DAEMON_TEST_H
#define PMTUD_TEST_DAEMON_TEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <stdexcept>
#include <string>

#include "QVLog.h"
#include "captured_log.h"
#include "fake_platform.h"
#include "fake_syscalls.h"
#include "journal.h"
#include "packets.h"

namespace daemon_test {

using fake::Journal;
using packets::Bytes;
using packets::Lines;

/// The last line; "(none)" if there is none.
inline std::string last(const Lines& lines) { return lines.empty() ? "(none)" : lines.back(); }

/// What is written to the file channel at this threshold while `work` runs.
template <typename Work>
Lines logAt(int32_t level, Work work) {
    const CapturedLog log(level);
    work();
    return linesOf(log.text());
}

inline Lines::const_iterator find(const Lines& lines, const std::string& beginning) {
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.starts_with(beginning);
    });
    if (found == lines.end()) throw std::out_of_range(beginning);
    return found;
}

/// The lines up to and including the first that begins like this, which must exist.
inline Lines upTo(const Lines& lines, const std::string& beginning) {
    return {lines.begin(), find(lines, beginning) + 1};
}

/// Without the first line that begins like this, which must exist.
inline Lines without(Lines lines, const std::string& beginning) {
    lines.erase(find(lines, beginning));
    return lines;
}

/// The name of a case in a table: its member `name`.
constexpr auto kCaseName = [](const auto& instance) { return std::string(instance.param.name); };

/// Starts each test with freshly reset fakes, at 14:03:07.245.
class FakesTest : public testing::Test {
 protected:
    FakesTest() { fake::reset(); }
    ~FakesTest() override { fake::reset(); }
};

}  // namespace daemon_test

#endif
