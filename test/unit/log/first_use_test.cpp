// SPDX-License-Identifier: MIT
// The first statements of a process: what they touch, and what is set from the start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <type_traits>

#include "QVLog.h"

namespace {

std::string contentOf(FILE* file) {
    rewind(file);
    char text[512];
    return {text, fread(text, 1, sizeof text, file)};
}

/// The file channel's stream is set to standard error by the first call of its accessor, so
/// an accessor that was not called takes a standard error that was exchanged meanwhile.
TEST(FirstUse, OfASuppressedLevelLeavesTheStreamUnsetAndOfAReportedOneSetsItForGood) {
    ASSERT_EQ(qv::reportingLevel(), 1);
    FILE* const original = stderr;
    FILE* const beforeSuppressed = tmpfile();
    FILE* const beforeReported = tmpfile();

    stderr = beforeSuppressed;
    QV_LOG_IN(DEBUG, 1, "int f()") << "suppressed by its level";
    stderr = beforeReported;
    QV_LOG_IN(ERROR, 2, "int f()") << "first";
    stderr = original;
    QV_LOG_IN(ERROR, 3, "int f()") << "second";

    qv::stream() = original;
    EXPECT_EQ(contentOf(beforeSuppressed), "");
    EXPECT_EQ(contentOf(beforeReported),
              "14:03:07.2 ERROR: [first_use_test:2 | int f()] first\r\n"
              "14:03:07.2 ERROR: [first_use_test:3 | int f()] second\r\n");
    fclose(beforeSuppressed);
    fclose(beforeReported);
}

/// While it lives, descriptor 2 is a file.
class StandardError {
 public:
    StandardError() : m_file(tmpfile()), m_original(dup(STDERR_FILENO)) {
        dup2(fileno(m_file), STDERR_FILENO);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;
    ~StandardError() {
        dup2(m_original, STDERR_FILENO);
        close(m_original);
        fclose(m_file);
    }
    std::string text() const { return contentOf(m_file); }

 private:
    FILE* m_file;
    int m_original;
};

TEST(Unchanged, ThresholdLetsErrorsAndWarningsAloneReachStandardError) {
    int evaluations = 0;
    const StandardError standardError;
    QV_LOG_IN(ERROR, 1, "int f()") << "an error";
    QV_LOG_IN(WARNING, 2, "int f()") << "a warning";
    QV_LOG_IN(INFO, 3, "int f()") << ++evaluations;
    QV_LOG_IN(DEBUG, 4, "int f()") << ++evaluations;
    QV_LOG_IN(DEBUG1, 5, "int f()") << ++evaluations;
    QV_LOG_IN(DEBUG2, 6, "int f()") << ++evaluations;
    QV_LOG_IN(DEBUG3, 7, "int f()") << ++evaluations;
    QV_LOG_IN(DEBUG4, 8, "int f()") << ++evaluations;
    EXPECT_EQ(standardError.text(),
              "14:03:07.2 ERROR: [first_use_test:1 | int f()] an error\r\n"
              "14:03:07.2 WARNING: [first_use_test:2 | int f()] a warning\r\n");
    EXPECT_EQ(evaluations, 0);
}

TEST(Unchanged, ThresholdIsWarning) { EXPECT_EQ(qv::reportingLevel(), 1); }

TEST(Unchanged, StreamIsStandardError) { EXPECT_EQ(qv::stream(), stderr); }

static_assert(std::is_same_v<decltype(qv::reportingLevel()), int32_t&>);
static_assert(std::is_same_v<decltype(qv::stream()), FILE*&>);

}  // namespace
