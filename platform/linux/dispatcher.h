// SPDX-License-Identifier: MIT
// The dispatcher: keeps the rules up to date and passes refused packets to the receive callback.
#ifndef PMTUD_LINUX_DISPATCHER_H
#define PMTUD_LINUX_DISPATCHER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "answer_news.h"
#include "answer_watch.h"
#include "burst.h"
#include "copies.h"
#include "frame.h"
#include "kernel_answer.h"
#include "line_budget.h"
#include "link_monitor.h"
#include "log_group.h"
#include "log_message.h"
#include "nft_connection.h"
#include "seam.h"
#include "service.h"
#include "vlan_table.h"

namespace pmtud_linux {

class Dispatcher {
 public:
    /// Binds the log group and installs the rules, which withdraw the kernel's answers to copied
    /// packets from then on. 0, or a negative errno value with nothing left installed.
    int attach();

    /// Removes the rules, then releases the log group.
    void detach();

    /// Calls `callback` on the calling thread for every packet that the kernel refused, and follows
    /// link changes; never returns. Lets the callback's exceptions pass, and throws
    /// std::system_error if a socket fails.
    [[noreturn]] void run(pktd_rx_cb_t callback);

 private:
    int openAll();
    int installRules();
    void noteInstalled();
    std::string reasonForRefusal();
    int timeout() const;
    void followLinks();
    void applyRules();
    void receive(pktd_rx_cb_t callback);
    void takeAll(const LogGroup::Datagram& datagram, pktd_rx_cb_t callback);
    void take(const LogMessage& message, pktd_rx_cb_t callback);
    void takeRefused(const LogMessage& message, pktd_rx_cb_t callback);
    bool isStillMtu(const LogMessage& message, const Copy& copy) const;
    void deliver(const LogMessage& message, const Copy& copy, pktd_rx_cb_t callback);
    void noteLoss(uint32_t ifindex, Burst::Clock::time_point now);
    void sendKernelAnswer(const LogMessage& message, const Copy* copy);
    void leaveToKernel(uint32_t ifindex);
    void followSequence(uint32_t sequence);
    void countVerdict(int verdict);
    void reportBursts(bool over);
    std::string nameOf(uint32_t ifindex) const;
    bool retrying() const { return m_rulesRefused || m_links.stale(); }
    bool hasUnreported() const {
        return m_lost.pending() || m_foreign.pending() || m_unanswered.pending() ||
               m_unlogged.pending();
    }

    LogGroup m_group;
    LinkMonitor m_links;
    NftConnection m_rules;
    AnswerWatch m_answers;
    AnswerNews m_answerNews;
    KernelAnswer m_kernelAnswer;
    std::unordered_map<uint32_t, Burst::Clock::time_point> m_leftToKernel;  // until when

    Service m_service;

    VlanTable m_table;
    Vlans m_installed;
    // Whatever failed is tried again at m_nextTry.
    bool m_rulesRefused = false;
    Burst::Clock::time_point m_nextTry{};

    Copies m_copies;
    Frame m_frame;
    uint32_t m_nextSequence = 0;
    bool m_overrun = false;  // messages were lost; the next one will show how many
    Burst m_lost;
    Burst m_foreign;
    Burst m_unanswered;
    Burst m_unlogged;
    LineBudget m_budget;
    std::array<uint64_t, PKTD_VERDICT_REPOST + 1> m_verdicts{};
};

}  // namespace pmtud_linux

#endif
