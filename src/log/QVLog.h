// SPDX-License-Identifier: MIT
// The qv logging framework: levels, the level check, loggers and their sinks.
#ifndef PMTUD_QV_LOG_H
#define PMTUD_QV_LOG_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace qv {

/// A lower code is more severe.
enum LogLevel : int32_t {
    ERROR = 0,
    WARNING = 1,
    INFO = 2,
    DEBUG = 3,
    DEBUG1 = 4,
    DEBUG2 = 5,
    DEBUG3 = 6,
    DEBUG4 = 7
};

namespace detail {
inline int32_t reportingLevelSetting = WARNING;
}

/// The least severe level that the file channel still writes, process-wide.
inline int32_t& reportingLevel() { return detail::reportingLevelSetting; }

/// The file channel's stream: standard error unless set otherwise. Null turns the channel off.
FILE*& stream();

/// Whether the file channel writes statements of this level.
inline bool isReported(LogLevel level) { return level <= reportingLevel() && stream() != nullptr; }

/// The local time as "HH:MM:SS.t", where t is tenths of a second. Throws std::runtime_error if
/// the time cannot be converted.
std::string nowTime();

/// The level's name; `level` must be one of the enumerators.
std::string toString(LogLevel level);

/// A logger lives for one statement: `get` begins the line, the statement inserts its message, and
/// the destructor passes the line to Policy::output, even if an exception leaves the statement.
template <typename Policy>
class Log {
 public:
    Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    virtual ~Log();

    /// Begins a line of the file channel: time, level and the statement's place. `file` is the
    /// source file's base name, `function` the compiler's text for the function.
    std::ostream& get(const char* file, int line, const char* function, LogLevel level);

    /// Begins a line for the debug process's module number `module`.
    std::ostream& get(uint32_t module, const char* name);
    std::ostream& get(uint32_t module, const std::string& name);

 private:
    uint32_t m_channel = 0;
    int32_t m_reserved = 0;
    std::ostringstream m_os;
};

/// Writes the line, followed by CR LF, to stream().
class Output2FilePolicy {
 public:
    static void output(uint32_t channel, std::ostringstream& os, int32_t reserved);
};

/// Passes the line, without a line ending, to the platform's debug process.
class Output2DebugProcessPolicy {
 public:
    static void output(uint32_t channel, std::ostringstream& os, int32_t reserved);
};

class QVDevLog : public Log<Output2FilePolicy> {
 public:
    QVDevLog();
    ~QVDevLog() override;
};

class QVDebugProcLog : public Log<Output2DebugProcessPolicy> {
 public:
    QVDebugProcLog();
    ~QVDebugProcLog() override;
};

namespace detail {

/// A source file's name without its extension, as a compile-time constant.
template <size_t Size>
struct BaseName {
    consteval BaseName(const char (&fileName)[Size]) {
        const std::string_view stem =
            std::string_view(fileName).substr(0, std::string_view(fileName).rfind('.'));
        for (size_t i = 0; i < stem.size(); ++i) text[i] = stem[i];
    }
    std::array<char, Size> text{};
};

template <BaseName Name>
inline constexpr auto kBaseName = Name.text;

/// Ends a statement: turns the stream into void. & binds more loosely than << and more tightly than
/// ?:.
struct EndOfStatement {
    void operator&(const std::ostream&) const {}
};

}  // namespace detail
}  // namespace qv

/// A statement with a level: QV_LOG(WARNING, 40) << "text " << value;
/// The line number is stated rather than taken from the source, because log lines are matched by
/// it: it must not change when the code moves. If the file channel does not report the level, no
/// argument is evaluated.
#define QV_LOG(LEVEL, LINE) QV_LOG_IN(LEVEL, LINE, __PRETTY_FUNCTION__)

/// The same, for functions whose lines must show a text other than the compiler's.
#define QV_LOG_IN(LEVEL, LINE, FUNCTION)                                                  \
    !::qv::isReported(::qv::LogLevel::LEVEL)                                              \
        ? static_cast<void>(0)                                                            \
        : ::qv::detail::EndOfStatement() &                                                \
              ::qv::QVDevLog().get(::qv::detail::kBaseName<__FILE_NAME__>.data(), (LINE), \
                                   (FUNCTION), ::qv::LogLevel::LEVEL)

#endif
