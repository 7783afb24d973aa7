// SPDX-License-Identifier: MIT
// The file channel, captured in memory for the duration of a test.
#ifndef PMTUD_TEST_CAPTURED_LOG_H
#define PMTUD_TEST_CAPTURED_LOG_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "QVLog.h"

/// Function texts as GCC spells them: Clang writes a blank before an asterisk or an ampersand.
inline std::string asGccSpells(std::string text) {
#ifdef __clang__
    for (const char* const apart : {"_t *", "_t &"}) {
        for (auto at = text.find(apart); at != text.npos; at = text.find(apart, at)) {
            text.erase(at + 2, 1);
        }
    }
#endif
    return text;
}

/// While it lives, the file channel writes here, at this threshold.
class CapturedLog {
 public:
    explicit CapturedLog(int32_t level) : m_level(qv::reportingLevel()), m_stream(qv::stream()) {
        m_file = open_memstream(&m_text, &m_size);
        qv::reportingLevel() = level;
        qv::stream() = m_file;
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog() {
        qv::reportingLevel() = m_level;
        qv::stream() = m_stream;
        fclose(m_file);
        free(m_text);
    }

    /// All that was written so far, with function texts as GCC spells them.
    std::string text() const {
        fflush(m_file);
        return asGccSpells({m_text, m_size});
    }

 private:
    int32_t m_level;
    FILE* m_stream;
    FILE* m_file;
    char* m_text = nullptr;
    size_t m_size = 0;
};

/// The log's text, cut after each CR LF.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const auto end = text.find("\r\n", begin);
        const auto next = end == std::string::npos ? text.size() : end + 2;
        lines.push_back(text.substr(begin, next - begin));
        begin = next;
    }
    return lines;
}

#endif
