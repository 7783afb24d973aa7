// SPDX-License-Identifier: MIT
// The qv logging framework: the loggers, a line's time and level, and the two sinks.
#include "QVLog.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "debug_process.h"

namespace qv {

namespace {

// Each line's stream is moved from this one: moving looks up the locale's facets once, constructing
// twice. It also carries over the memory of the thread's previous line. An empty stream allocates
// nothing, so constructing it cannot fail.
// NOLINTNEXTLINE(cert-err58-cpp)
thread_local std::ostringstream idleStream(std::ios_base::out);

/// A line taken out of its stream. Its memory goes to the thread's next line.
class FinishedLine {
 public:
    explicit FinishedLine(std::ostringstream& os) : m_text(std::move(os).str()) {}
    FinishedLine(const FinishedLine&) = delete;
    FinishedLine& operator=(const FinishedLine&) = delete;
    ~FinishedLine() {
        // A dump of a whole packet takes some 200 KiB, too much to keep.
        constexpr size_t kKept = 4096;
        if (m_text.capacity() > kKept) return;
        m_text.clear();
        idleStream.str(std::move(m_text));
    }
    const char* text() const { return m_text.c_str(); }

 private:
    std::string m_text;
};

}  // namespace

FILE*& stream() {
    static FILE* fileChannel = stderr;
    return fileChannel;
}

std::string nowTime() {
    const time_t seconds = time(nullptr);
    tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        throw std::runtime_error("Could not get local time");
    }
    std::array<char, 11> clock{};
    strftime(clock.data(), clock.size(), "%X", &local);

    timeval now{};
    gettimeofday(&now, nullptr);
    const auto milliseconds = static_cast<long>(now.tv_usec / 1000);

    // 11 is intentional: it keeps tenths of a second and cuts the rest.
    constexpr size_t kLimit = 11;
    std::array<char, 100> text{};
    snprintf(text.data(), kLimit, "%s.%03ld", clock.data(), milliseconds);
    return text.data();
}

std::string toString(LogLevel level) {
    static constexpr std::array<const char*, 8> kNames = {"ERROR",  "WARNING", "INFO",   "DEBUG",
                                                          "DEBUG1", "DEBUG2",  "DEBUG3", "DEBUG4"};
    return kNames[static_cast<size_t>(level)];
}

void Output2FilePolicy::output(uint32_t /*channel*/, std::ostringstream& os, int32_t /*reserved*/) {
    os << "\r" << std::endl;
    FILE* const file = stream();
    if (file == nullptr) return;
    const FinishedLine line(os);
    fputs(line.text(), file);
    fflush(file);
}

void Output2DebugProcessPolicy::output(uint32_t channel, std::ostringstream& os,
                                       int32_t /*reserved*/) {
    debug_process(channel, "%s", FinishedLine(os).text());
}

template <typename Policy>
Log<Policy>::Log() : m_os(std::move(idleStream)) {}

template <typename Policy>
Log<Policy>::~Log() {
    Policy::output(m_channel, m_os, m_reserved);
}

template <typename Policy>
std::ostream& Log<Policy>::get(const char* file, int line, const char* function, LogLevel level) {
    m_os << nowTime() << " " << toString(level) << ": [" << file << ":" << line << " | " << function
         << "] ";
    return m_os;
}

template <typename Policy>
std::ostream& Log<Policy>::get(uint32_t module, const char* name) {
    m_channel = module;
    std::stringbuf& line = *m_os.rdbuf();
    line.sputc(' ');
    line.sputn(name, static_cast<std::streamsize>(strlen(name)));
    line.sputn(": ", 2);
    return m_os;
}

template <typename Policy>
std::ostream& Log<Policy>::get(uint32_t module, const std::string& name) {
    return get(module, name.c_str());
}

template class Log<Output2FilePolicy>;
template class Log<Output2DebugProcessPolicy>;

QVDevLog::QVDevLog() = default;
QVDevLog::~QVDevLog() = default;

QVDebugProcLog::QVDebugProcLog() = default;
QVDebugProcLog::~QVDebugProcLog() = default;

}  // namespace qv
