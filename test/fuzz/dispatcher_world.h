// SPDX-License-Identifier: MIT
// The kernel and libnftables as the dispatcher sees them, and what must always hold for it.
#ifndef PMTUD_TEST_FUZZ_DISPATCHER_WORLD_H
#define PMTUD_TEST_FUZZ_DISPATCHER_WORLD_H

#include <sys/socket.h>

#include <chrono>
#include <deque>
#include <set>

#include "copies_model.h"
#include "links_model.h"
#include "pktd.h"
#include "rules_model.h"
#include "say.h"
#include "traffic.h"

namespace fuzz {

/// A netlink socket, or a connection to nftables.
struct Opened {
    int fd = 0;
    bool isOpen = false;
    std::string refusal = {};  // of the last rules
};

enum class Sender { kKernel, kProcess, kNobody };

/// Writes the address of a datagram's sender. Returns its size.
inline socklen_t putSender(void* address, Sender sender) {
    sockaddr_nl name{};
    name.nl_family = AF_NETLINK;
    name.nl_pid = sender == Sender::kProcess ? 78 : 0;
    memcpy(address, &name, sizeof name);
    return sender == Sender::kNobody ? 0 : sizeof name;
}

/// A withdrawn message. It is answered, or given back to the kernel, exactly once.
struct Withdrawn {
    std::optional<Kept> copy;  // of the packet that it refuses
    Bytes quote;
    Bytes answer;  // the kernel's
    uint32_t egress = 0;
    int ingressVlan = 0;  // 0: it cannot be handed over
    uint32_t vlanEgress = 0;

    bool isHandedOver = false;
    bool isRead = false;  // the counter, after the frame
    bool isLost = false;
    bool isGivenBack = false;
    int triesNear = 0;  // to the station that the packet came from
    int triesFar = 0;
    int sent = 0;

    /// Whether the answer leaves where the packet came in, and from a known station.
    bool isNear() const;
};

class World {
 public:
    explicit World(Input given) : input(given) {}

    // The kernel's side.
    Input input;
    std::chrono::nanoseconds now = std::chrono::hours(1);
    int callsUntilFailure = 0;  // 0: none fails
    std::set<int> descriptors;  // that are open, except libmnl's
    Opened group{901};
    Opened linkSocket{902};
    Opened counter{903};
    Opened rulesContext;
    Opened checkContext;
    uint32_t groupSequence = 0;  // of the last request about the group
    uint64_t answersThatLeft = 0;
    uint8_t counterStyle = 0;
    LinksModel links;
    std::optional<RulesModel> rules;  // nothing: there is no table
    bool areRulesRefused = false;
    bool isRunning = false;
    bool logIsDown = false;
    bool isEnding = false;

    /// Whether this call fails.
    bool failsNow() { return callsUntilFailure != 0 && --callsUntilFailure == 0; }

    // What arrives.
    void drawDatagram(mmsghdr& header);
    int overruns = 0;

    // What becomes of withdrawn messages.
    int handOver(const st_pktd_shm_queue_entry_data_t& record, const uint8_t* frame, size_t size);
    void readCounter(std::optional<uint64_t> reading);
    Withdrawn& givenBack();
    void send(bool isNear, bool succeeds);
    void leaveToKernel(bool succeeds);
    void settle();
    bool isAnswerLost() const { return m_current && m_current->isLost; }

    // Lines, and what is counted until it is logged.
    void takeLine(pmtud_linux::Priority priority, const std::string& line);
    bool isAllLogged() const { return m_logged == m_counted; }
    int startLines = 0;

 private:
    enum Count { kLost, kUnanswered, kForeign, kUnlogged, kCounts };

    void expect(const Message& message);
    Withdrawn& next();
    void finishCurrent();

    Traffic m_traffic;
    CopiesModel m_copies;
    uint32_t m_nextSequence = 0;
    std::array<uint64_t, kCounts> m_counted{};
    std::array<uint64_t, kCounts> m_logged{};
    std::set<std::string> m_linesOfVerdict;
    int m_linesOfOverrun = 0;
    int m_framesLogged = 0;

    std::deque<Withdrawn> m_expected;
    std::optional<Withdrawn> m_current;  // that the dispatcher handles
    uint64_t m_lastReading = 0;
    std::map<uint32_t, std::chrono::nanoseconds> m_leftToKernel;  // until when, by interface
};

/// Of the input that is being run.
extern World* world;

/// Of a call that fails only if it is its turn.
inline int answerOrFail() { return world->failsNow() ? fail(EPERM) : 0; }

}  // namespace fuzz

#endif
