// SPDX-License-Identifier: MIT
// The dispatcher: keeps the rules true and hands what they pick to the receive callback.
#ifndef PMTUD_LINUX_DISPATCHER_H
#define PMTUD_LINUX_DISPATCHER_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "frames.h"
#include "links.h"
#include "log_group.h"
#include "nft_table.h"
#include "offload.h"
#include "say.h"
#include "seam.h"
#include "vlan_table.h"

namespace pmtud_linux {

class Dispatcher {
 public:
    /// Takes the log group and installs the rules: from here on packets are picked.  0, or
    /// a negative errno value with nothing left behind.
    int attach();

    /// Withdraws the rules, then gives the log group up.
    void detach();

    /// Calls `callback` for every packet picked, on the calling thread, and follows link
    /// changes; never returns.  What the callback throws passes through, as does
    /// std::system_error where a socket fails.
    [[noreturn]] void run(pktd_rx_cb_t callback);

 private:
    int openAll();
    void followLinks();
    void applyRules();
    void receive(pktd_rx_cb_t callback);
    void take(const char* bytes, size_t length, pktd_rx_cb_t callback);
    void followSequence(uint32_t sequence);
    void countVerdict(int verdict);
    void sayBursts(bool over);
    bool retrying() const { return m_rulesRefused || m_links.stale(); }
    bool unsaid() const { return m_lost.pending() || m_unusable.pending(); }

    LogGroup m_group;
    LinkMonitor m_links;
    NftConnection m_rules;
    OffloadWatch m_offload;

    VlanTable m_table;
    Vlans m_installed;
    // What the last try could not do is tried again a little later.
    bool m_rulesRefused = false;
    Burst::Clock::time_point m_nextTry{};

    Frame m_frame;
    uint32_t m_nextSequence = 0;
    bool m_overrun = false;  // messages were lost; how many shows with the next one
    Burst m_lost;
    Burst m_unusable;
    std::array<uint64_t, PKTD_VERDICT_REPOST + 1> m_verdicts{};
};

}  // namespace pmtud_linux

#endif
