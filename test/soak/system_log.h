// SPDX-License-Identifier: MIT
// The lab's system log: reads /dev/log and counts what the daemon logs.
#ifndef PMTUD_SOAK_SYSTEM_LOG_H
#define PMTUD_SOAK_SYSTEM_LOG_H

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "descriptor.h"

namespace soak {

class SystemLog {
 public:
    struct Counts {
        std::atomic<uint64_t> lines{0};         ///< of the engine
        std::atomic<uint64_t> linesLost{0};     ///< as the daemon reports
        std::atomic<uint64_t> messagesLost{0};  ///< of the rules, as the daemon reports
        std::atomic<uint64_t> unanswered{0};    ///< "refused packets that nobody answered"
        std::atomic<uint64_t> unlogged{0};      ///< "frames answered but not logged"
    };

    /// Creates /dev/log and starts to read it; throws std::system_error. Writes the platform's
    /// lines that are not counted to standard error, each text once.
    SystemLog()
        : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_stop(eventfd(0, EFD_CLOEXEC)) {
        sockaddr_un log{};
        log.sun_family = AF_UNIX;
        std::strcpy(log.sun_path, "/dev/log");
        if (!m_socket.valid() || !m_stop.valid() ||
            bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&log), sizeof log) != 0)
            throw std::system_error(errno, std::generic_category(), "/dev/log");
        setReading(true);
    }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;
    ~SystemLog() {
        setReading(false);
        unlink("/dev/log");
    }

    const Counts& counts() const { return m_counts; }

    /// Starts or stops reading. While lines are not read, the log soon accepts no more.
    void setReading(bool reading) {
        if (reading == m_reader.joinable()) return;
        if (reading) {
            m_reader = std::thread([this] { read(); });
            return;
        }
        eventfd_write(m_stop.get(), 1);
        m_reader.join();
    }

 private:
    void read() {
        // The daemon never waits for its log: what is not read soon is lost.
        setpriority(PRIO_PROCESS, 0, -15);
        for (;;) {
            pollfd ready[] = {{m_socket.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
            if (poll(ready, 2, -1) < 0) continue;
            if (ready[1].revents != 0) {
                eventfd_t ignored = 0;
                eventfd_read(m_stop.get(), &ignored);
                return;
            }
            std::array<char, 1100> line;
            const ssize_t size = recv(m_socket.get(), line.data(), line.size(), MSG_DONTWAIT);
            if (size > 0) take({line.data(), static_cast<size_t>(size)});
        }
    }

    void take(std::string_view line) {
        if (line.find("]: 89 PMTUD-Prot: ") != line.npos) {
            ++m_counts.lines;
            return;
        }
        struct Counted {
            std::string_view before;  // the number
            std::atomic<uint64_t>& count;
        };
        const Counted all[] = {{"PMTUD-Linux: ", m_counts.linesLost},
                               {"messages lost: ", m_counts.messagesLost},
                               {"that nobody answered: ", m_counts.unanswered},
                               {"frames answered but not logged: ", m_counts.unlogged}};
        for (const auto& [before, count] : all) {
            const size_t at = line.find(before);
            if (at == line.npos) continue;
            uint64_t number = 0;
            const char* const start = line.data() + at + before.size();
            const auto result = std::from_chars(start, line.data() + line.size(), number);
            if (result.ec != std::errc{}) continue;
            count += number;
            return;
        }
        const size_t at = line.find("PMTUD-Linux: ");
        const std::string text(at == line.npos ? line : line.substr(at));
        if (m_shown.insert(text).second)
            std::fprintf(stderr, "the daemon reports: %s\n", text.c_str());
    }

    pmtud_linux::Descriptor m_socket;
    pmtud_linux::Descriptor m_stop;  // an event
    Counts m_counts;
    std::set<std::string> m_shown;
    std::thread m_reader;
};

}  // namespace soak

#endif
