// SPDX-License-Identifier: MIT
// Writes lines to the system log, as datagrams to /dev/log, without blocking.
#include "system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace pmtud_linux {

namespace {

// These errors mean that the log daemon is busy or refuses this line; any other means that it is
// gone.
bool concernsLine(int error) { return error == EAGAIN || error == ENOBUFS || error == EMSGSIZE; }

}  // namespace

SystemLog& SystemLog::instance() {
    static SystemLog& log = *new SystemLog;
    return log;
}

int SystemLog::write(Priority priority, uint32_t module, const char* text) {
    const std::lock_guard lock(m_mutex);
    Line line;
    if (!format(line, priority, module, text)) return -EINVAL;
    return send({&line, 1});
}

void SystemLog::lose() {
    const std::lock_guard lock(m_mutex);
    ++m_lost;
}

int SystemLog::keep(uint32_t module, const char* text) {
    const std::lock_guard lock(m_mutex);
    if (!format(m_kept[m_keptCount], Priority::kDebug, module, text)) return -EINVAL;
    if (++m_keptCount == kLinesKept) send({m_kept.data(), std::exchange(m_keptCount, 0)});
    return 0;
}

void SystemLog::flush() {
    const std::lock_guard lock(m_mutex);
    if (m_keptCount != 0) send({m_kept.data(), std::exchange(m_keptCount, 0)});
}

bool SystemLog::format(Line& line, Priority priority, uint32_t module, const char* text) {
    if (m_pid == 0) m_pid = getpid();
    const int wanted = std::snprintf(line.text.data(), line.text.size(), "<%d>%s %s[%ld]: %u%s",
                                     static_cast<int>(priority), stamp(),
                                     program_invocation_short_name, m_pid, module, text);
    if (wanted < 0) {
        ++m_lost;
        return false;
    }
    line.size = std::min(static_cast<size_t>(wanted), kMaximumLine);
    return true;
}

// Sends the lines, preceded by one that reports earlier losses.
int SystemLog::send(std::span<const Line> lines) {
    Line lost;
    const bool someWereLost = m_lost != 0;
    if (someWereLost) {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), " PMTUD-Linux: %llu lines lost",
                      static_cast<unsigned long long>(m_lost));
        format(lost, Priority::kWarning, kOwnModule, text.data());
    }

    std::array<iovec, kLinesKept + 1> pieces;
    std::array<mmsghdr, kLinesKept + 1> messages{};
    size_t count = 0;
    const auto add = [&](const Line& line) {
        // sendmmsg(2) only reads the text.
        pieces[count] = {const_cast<char*>(line.text.data()), line.size};
        messages[count].msg_hdr.msg_iov = &pieces[count];
        messages[count].msg_hdr.msg_iovlen = 1;
        ++count;
    };
    if (someWereLost) add(lost);
    for (const Line& line : lines) add(line);

    int error = 0;
    size_t sent = deliver({messages.data(), count}, error);
    if (someWereLost && sent != 0) {
        m_lost = 0;
        --sent;
    }
    m_lost += lines.size() - sent;
    return sent == lines.size() ? 0 : error;
}

// How many messages the log accepted. If not all, sets `error` to a negative errno value.
size_t SystemLog::deliver(std::span<mmsghdr> messages, int& error) {
    constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
    size_t sent = 0;
    bool isNew = false;
    while (sent < messages.size()) {
        const auto left = messages.subspan(sent);
        const int result =
            sendmmsg(m_socket, left.data(), static_cast<unsigned int>(left.size()), kFlags);
        if (result > 0) {
            sent += static_cast<size_t>(result);
            continue;
        }
        error = -errno;
        if (isNew || concernsLine(-error)) return sent;
        if (error = connectAgain(); error != 0) return sent;
        isNew = true;
    }
    return sent;
}

// Makes at most one attempt per second while attempts fail, so that lines stay cheap without a log
// daemon.
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

// "Mmm dd hh:mm:ss" in local time. Not strftime(3), whose month names depend on the locale.
const char* SystemLog::stamp() {
    const time_t second = time(nullptr);
    if (second == m_second) return m_stamp.data();
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    if (localtime_r(&second, &local) == nullptr) local = tm{};
    std::snprintf(m_stamp.data(), m_stamp.size(), "%s %2d %02d:%02d:%02d", kMonths[local.tm_mon],
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    m_second = second;
    return m_stamp.data();
}

}  // namespace pmtud_linux
