// SPDX-License-Identifier: MIT
// The lab's system log: reads /dev/log and counts what the daemon logs.
#ifndef PMTUD_SOAK_SYSTEM_LOG_H
#define PMTUD_SOAK_SYSTEM_LOG_H

#include <array>
#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <thread>

namespace soak {

class SystemLog {
 public:
    struct Counts {
        std::atomic<uint64_t> lines{0};         ///< of the engine
        std::atomic<uint64_t> linesLost{0};     ///< as the daemon reports
        std::atomic<uint64_t> received{0};      ///< "Received frame of size"
        std::atomic<uint64_t> sent{0};          ///< "message sent to source"
        std::atomic<uint64_t> messagesLost{0};  ///< of the rules, as the daemon reports
        std::atomic<uint64_t> unanswered{0};    ///< "refused packets that nobody answered"
        std::atomic<uint64_t> unlogged{0};      ///< "frames answered but not logged"
        std::atomic<uint64_t> invalid{0};       ///< "Invalid VLAN"
        std::atomic<uint64_t> others{0};        ///< lines of the platform of any other kind
    };

    /// Creates /dev/log and starts to read it; throws std::system_error. Writes the platform's
    /// lines that are not counted to standard error, each text once.
    SystemLog();
    ~SystemLog();
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    const Counts& counts() const { return m_counts; }

    /// Whether lines are read. While they are not, the log soon accepts no more.
    void setReading(bool reading);

 private:
    void read();
    void wake() const;
    void take(std::string_view line);
    void takePlatformLine(std::string_view text);

    int m_socket = -1;
    int m_wake = -1;
    std::atomic<bool> m_ending{false};
    std::atomic<bool> m_reading{true};
    Counts m_counts;
    std::set<std::string> m_said;
    std::thread m_thread;
};

}  // namespace soak

#endif
