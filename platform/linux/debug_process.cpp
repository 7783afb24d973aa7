// SPDX-License-Identifier: MIT
// The debug process: lines to the system log, as datagrams to /dev/log.
//
// A datagram has the form of RFC 3164 section 4.1 without the host name, as local
// programs send it: "<31>Mmm dd hh:mm:ss pmtud[PID]: MODULE TEXT", 31 being facility
// daemon and severity debug.  The text goes as it stands.  A datagram is at most 1,024
// bytes, that RFC's bound; a longer line is cut there.
//
// Nothing here waits: a line that the log does not take at once is dropped and
// counted, and the count is said ahead of the next line that the log takes.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "seam.h"

namespace {

constexpr size_t maximumLine = 1024;
constexpr uint32_t ownModule = 89;

class SystemLog {
 public:
    int take(uint32_t module, const char* text);
    int lose(int error);

 private:
    using Clock = std::chrono::steady_clock;

    int send(uint32_t module, const char* text);
    int deliver(const char* line, size_t length);
    int connectAgain();
    const char* stamp();

    // Held only across calls that do not block.
    std::mutex m_mutex;
    int m_socket = -1;
    Clock::time_point m_nextAttempt{};  // holds only where there is no socket
    time_t m_second = -1;
    std::array<char, 64> m_stamp{};
    pid_t m_pid = 0;
    uint64_t m_lost = 0;
};

int SystemLog::take(uint32_t module, const char* text) {
    const std::lock_guard lock(m_mutex);
    if (m_lost != 0) {
        std::array<char, 64> said{};
        std::snprintf(said.data(), said.size(), " PMTUD-Linux: %llu lines lost",
                      static_cast<unsigned long long>(m_lost));
        const int result = send(ownModule, said.data());
        if (result != 0) {
            ++m_lost;
            return result;
        }
        m_lost = 0;
    }
    const int result = send(module, text);
    if (result != 0) ++m_lost;
    return result;
}

int SystemLog::lose(int error) {
    const std::lock_guard lock(m_mutex);
    ++m_lost;
    return error;
}

int SystemLog::send(uint32_t module, const char* text) {
    if (m_pid == 0) m_pid = getpid();
    std::array<char, maximumLine + 1> line;
    const int wanted =
        std::snprintf(line.data(), line.size(), "<31>%s %s[%ld]: %u%s", stamp(),
                      program_invocation_short_name, static_cast<long>(m_pid), module, text);
    if (wanted < 0) return -EINVAL;
    return deliver(line.data(), std::min(static_cast<size_t>(wanted), maximumLine));
}

int SystemLog::deliver(const char* line, size_t length) {
    constexpr int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (m_socket >= 0) {
        if (::send(m_socket, line, length, flags) >= 0) return 0;
        // The log daemon is there and busy.  Any other failure: it is not there any more.
        if (errno == EAGAIN || errno == ENOBUFS || errno == EMSGSIZE) return -errno;
    }
    const int result = connectAgain();
    if (result != 0) return result;
    return ::send(m_socket, line, length, flags) >= 0 ? 0 : -errno;
}

// At most one attempt a second while they fail: a line must stay cheap without a log daemon.
int SystemLog::connectAgain() {
    const Clock::time_point now = Clock::now();
    if (m_socket < 0 && now < m_nextAttempt) return -ENOTCONN;
    m_nextAttempt = now + std::chrono::seconds(1);
    if (m_socket >= 0) close(m_socket);

    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0) return -errno;
    sockaddr_un log{};
    log.sun_family = AF_UNIX;
    std::strcpy(log.sun_path, "/dev/log");
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&log), sizeof log) == 0) return 0;
    const int error = errno;
    close(m_socket);
    m_socket = -1;
    return -error;
}

// "Mmm dd hh:mm:ss" in local time.  Not strftime(3), whose month names follow the locale.
const char* SystemLog::stamp() {
    const time_t second = time(nullptr);
    if (second == m_second) return m_stamp.data();
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    if (localtime_r(&second, &local) == nullptr) local = tm{};
    std::snprintf(m_stamp.data(), m_stamp.size(), "%s %2d %02d:%02d:%02d", months[local.tm_mon],
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    m_second = second;
    return m_stamp.data();
}

// Never destroyed: the receive thread writes lines until the process is gone, also while
// the static objects of the process are being destroyed.
SystemLog& systemLog() {
    static SystemLog& log = *new SystemLog;
    return log;
}

}  // namespace

int debug_process(uint32_t channel, const char* format, ...) {
    if (format == nullptr) return -EINVAL;
    std::array<char, maximumLine + 1> text;
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (length < 0) return systemLog().lose(-EINVAL);
    return systemLog().take(channel, text.data());
}
