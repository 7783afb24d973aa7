// SPDX-License-Identifier: MIT
// Host A of the soak: sends packets in windows and judges every answer.
#ifndef PMTUD_SOAK_HOST_H
#define PMTUD_SOAK_HOST_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "answer.h"
#include "descriptor.h"
#include "forge.h"

namespace soak {

/// Who must answer. The kernel quotes as much as fits in 576 and 1,280 bytes; the daemon's answers
/// have 88 bytes for IPv4, and for IPv6 an ICMPv6 message as long as the MTU.
enum class Answerer { kDaemon, kKernel, kEither };  // either: one of them, once

struct Figures {
    uint64_t sent = 0;
    uint64_t answered = 0;
};

class Host {
 public:
    /// Sends and receives on the interface of its own network namespace, and changes the MTU
    /// of bcm0.20 in the namespace of that name. Throws std::system_error.
    Host(uint64_t seed, const char* interface, const char* switchNamespace);

    /// Which packets to send.
    struct Order {
        uint64_t count;  ///< of packets that must be answered
        Answerer answerer;
        uint64_t rate = 0;      ///< per second; 0: as fast as possible
        bool allKinds = false;  ///< or only the plain ones
        bool isAwaited = true;  ///< each window's answers, of which the missing ones are counted
    };
    void send(const Order& order);

    /// Sends plain packets and awaits the answers, while the MTU of bcm0.20 changes at any time.
    void sendWhileMtuChanges(uint64_t count);

    /// The following packets are sent from all interfaces in turn, or from the first one alone.
    void setSpread(bool isSpread);

    /// Reads answers until none has come for a while.
    void settle(std::chrono::milliseconds quiet);

    /// Changes the MTU of bcm0.20.
    void setMtu(uint32_t mtu);

    /// By kind.
    const std::vector<Figures>& figures() const { return m_figures; }
    Figures figuresOf(Outcome outcome) const;
    uint64_t answeredByDaemon() const { return m_byDaemon; }
    uint64_t faults() const { return m_faults; }
    /// Awaited answers that did not come.
    uint64_t missing() const { return m_missing; }
    /// Answers whose ICMP checksum lacks a carry, so that their receiver discards them.
    uint64_t carriesDropped() const { return m_carriesDropped; }
    uint64_t mtuChanges() const { return m_mtus.size() - 1; }
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

    Sent& sentAs(size_t serial) { return m_ring[serial % m_ring.size()]; }
    const Sent& prepare(size_t kind, Answerer answerer, bool awaited);
    void sendWindow(size_t first, size_t count);
    void receive();
    void awaitAnswers();
    void judge(const packets::Answer& answer);
    void countMissing();

    std::vector<pmtud_linux::Descriptor> m_outs;  // the first is always used
    pmtud_linux::Descriptor m_in;
    pmtud_linux::Descriptor m_control;
    Forge m_forge;
    std::vector<Sent> m_ring;
    uint32_t m_serial = 0;
    uint64_t m_awaited = 0;
    std::vector<uint32_t> m_mtus;
    std::vector<Figures> m_figures;
    uint64_t m_byDaemon = 0;
    uint64_t m_faults = 0;
    uint64_t m_missing = 0;
    uint64_t m_missed = 0;
    uint64_t m_carriesDropped = 0;
};

}  // namespace soak

#endif
