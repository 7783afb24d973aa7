// SPDX-License-Identifier: MIT
// Host A of the soak: sends packets in windows and judges every answer.
#ifndef PMTUD_SOAK_HOST_H
#define PMTUD_SOAK_HOST_H

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "answer.h"
#include "forge.h"

namespace soak {

/// Who must answer. The kernel fills its answers up to 576 and 1,280 bytes; the daemon's are
/// 88 bytes for IPv4, and for IPv6 an ICMPv6 message as long as the MTU.
enum class Answerer { kDaemon, kKernel, kEither };  // either: one of them, once

struct KindFigures {
    uint64_t sent = 0;
    uint64_t answered = 0;
};

class Host {
 public:
    /// Sends and receives on the interface of its own network namespace, and changes the MTU
    /// of bcm0.20 in the namespace of that path. Throws std::system_error.
    Host(uint64_t seed, const char* interface, const char* switchNamespace);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Sends packets, of the plain kinds or of all, until `count` of those that must be answered
    /// are sent. Awaits each window's answers and counts the missing ones. The rate, in packets to
    /// be answered per second, keeps the packets within the rules' limits; 0 is as fast as
    /// possible.
    void sendAndAwait(uint64_t count, bool allKinds, Answerer answerer, uint64_t rate = 0);

    /// The same with plain packets, while the MTU of bcm0.20 changes at any time.
    void sendWhileMtuChanges(uint64_t count);

    /// Sends plain packets without a pause; answers may be missing. The rate is in packets per
    /// second; 0 is as fast as possible.
    void sendAndForget(uint64_t count, Answerer answerer, uint64_t rate = 0);

    /// The following packets are sent from all interfaces in turn, or from the first one alone.
    void setSpread(bool isSpread);

    /// Reads answers until none has come for a while.
    void settle(std::chrono::milliseconds quiet);

    /// Changes the MTU of bcm0.20.
    void setMtu(uint32_t mtu);

    const std::vector<KindFigures>& figures() const { return m_figures; }
    uint64_t faults() const { return m_faults; }
    /// Awaited answers that did not come.
    uint64_t missing() const { return m_missing; }
    /// Answers whose ICMP checksum lacks a carry, so that their receiver throws them away.
    uint64_t carriesDropped() const { return m_carriesDropped; }

    uint64_t mtuChanges() const { return m_mtus.size() - 1; }
    uint64_t answered(Outcome outcome) const;
    uint64_t answeredByDaemon() const { return m_byDaemon; }
    uint64_t sent(Outcome outcome) const;

    /// Answers that the receiving socket had no room for.
    uint64_t missedByReceiver();

 private:
    // What is known of a packet that was sent.
    struct Sent {
        uint32_t serial = 0;
        size_t kind = 0;
        size_t mtuThen = 0;  // in m_mtus
        Answerer answerer = Answerer::kEither;
        bool mayBeAnswered = false;
        bool awaited = false;
        bool answered = false;
        Bytes frame;
    };
    // More than are ever on their way, and a divisor of 2^16.
    static constexpr size_t kRingSize = 32768;
    static constexpr size_t kBatch = 64;

    void openSockets(const char* interface, const char* switchNamespace);
    void openOut(const char* interface);
    Sent& prepare(size_t kind, Answerer answerer, bool awaited);
    void sendWindow(size_t first, size_t count);
    bool receive();
    void awaitAnswers();
    void judge(const packets::Answer& answer);
    void changeMtuRandomly();
    void fault(const std::string& what);
    void countMissing();

    std::vector<int> m_outs;  ///< the first is always used
    int m_in = -1;
    int m_control = -1;
    Mac m_mac{};
    Forge m_forge;
    std::vector<Sent> m_ring;
    uint32_t m_serial = 0;
    uint64_t m_awaited = 0;
    std::vector<uint32_t> m_mtus;
    std::vector<KindFigures> m_figures;
    uint64_t m_byDaemon = 0;
    uint64_t m_faults = 0;
    uint64_t m_missing = 0;
    uint64_t m_missed = 0;
    uint64_t m_carriesDropped = 0;
};

}  // namespace soak

#endif
