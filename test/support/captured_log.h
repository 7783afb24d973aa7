// The file channel, caught in memory for the length of a test.
#ifndef PMTUD_TEST_CAPTURED_LOG_H
#define PMTUD_TEST_CAPTURED_LOG_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include "QVLog.h"

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

    /// All that was written so far.
    std::string text() const {
        fflush(m_file);
        return std::string(m_text, m_size);
    }

 private:
    int32_t m_level;
    FILE* m_stream;
    FILE* m_file;
    char* m_text = nullptr;
    std::size_t m_size = 0;
};

#endif
