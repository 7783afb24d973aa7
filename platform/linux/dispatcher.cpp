// SPDX-License-Identifier: MIT
// The dispatcher: keeps the rules true and hands what they pick to the receive callback.
#include "dispatcher.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "ruleset.h"

namespace pmtud_linux {

namespace {

// Between two looks at the link changes; they should not wait for the end of a flood.
constexpr int messagesAtOnce = 64;

// A message is the copied part of a packet and some 200 bytes about it.
constexpr size_t messageSize = 16384;

constexpr int retryInterval = 1000;  // milliseconds

const char* verdictName(int verdict) {
    switch (verdict) {
        case PKTD_VERDICT_ACCEPT:
            return "accept";
        case PKTD_VERDICT_REPOST:
            return "repost";
        default:
            return "invalid";
    }
}

}  // namespace

int Dispatcher::attach() {
    const int result = openAll();
    if (result != 0) detach();
    return result;
}

int Dispatcher::openAll() {
    // The group first: a packet picked without it would be dropped unseen.  The links
    // are watched before they are listed: a change in between is followed later.
    if (const int result = m_group.open(logGroup, snapLength); result != 0) return result;
    if (const int result = m_offload.open(); result != 0) return result;
    if (const int result = m_links.open(); result != 0) return result;
    if (const int result = m_links.list(m_table); result != 0) return result;
    if (const int result = m_rules.open(); result != 0) return result;
    const std::string commands = tableText() + changeText({}, m_table.vlans());
    if (const int result = m_rules.run(commands); result != 0) {
        say("the rules could not be installed: " + m_rules.problem());
        return result;
    }
    m_installed = m_table.vlans();
    m_offload.look(m_installed);
    return 0;
}

void Dispatcher::detach() {
    m_rules.close();
    m_group.close();
}

void Dispatcher::run(pktd_rx_cb_t callback) {
    for (;;) {
        pollfd ready[] = {{m_group.fd(), POLLIN, 0}, {m_links.fd(), POLLIN, 0}};
        if (poll(ready, 2, retrying() || unsaid() ? retryInterval : -1) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        if (ready[1].revents != 0 || (retrying() && Burst::Clock::now() >= m_nextTry))
            followLinks();
        if (ready[0].revents != 0)
            receive(callback);
        else
            sayBursts(true);
    }
}

void Dispatcher::followLinks() {
    if (m_links.follow(m_table) || m_rulesRefused) applyRules();
    if (retrying()) m_nextTry = Burst::Clock::now() + std::chrono::milliseconds(retryInterval);
}

// Where the kernel refuses, the rules stay as they were, and the next try covers this
// change and those that came since.
void Dispatcher::applyRules() {
    const std::string commands = changeText(m_installed, m_table.vlans());
    if (!commands.empty() && m_rules.run(commands) != 0) {
        if (!m_rulesRefused)
            say("the rules could not be changed, trying again: " + m_rules.problem());
        m_rulesRefused = true;
        return;
    }
    m_installed = m_table.vlans();
    m_rulesRefused = false;
    m_offload.look(m_installed);
}

void Dispatcher::receive(pktd_rx_cb_t callback) {
    alignas(nlmsghdr) std::array<char, messageSize> buffer;
    bool over = false;
    for (int count = 0; count < messagesAtOnce && !over; ++count) {
        const ssize_t length =
            recv(m_group.fd(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (length >= 0) {
            take(buffer.data(), static_cast<size_t>(length), callback);
        } else if (errno == EAGAIN) {
            over = true;
        } else if (errno == ENOBUFS) {
            m_overrun = true;
        } else if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "log group");
        }
    }
    sayBursts(over);
}

// Length is that of the datagram, which may be more than the buffer took.
void Dispatcher::take(const char* bytes, size_t length, pktd_rx_cb_t callback) {
    if (length > messageSize) {
        m_unusable.count(1);
        return;
    }
    if (!isPacket(bytes, length)) return;
    const auto packet = decodePacket(bytes, length);
    if (packet && packet->sequence) followSequence(*packet->sequence);
    const int vlan = packet ? m_table.vlanOf(packet->ingress) : 0;
    if (vlan == 0 || !m_frame.build(*packet, vlan)) {
        m_unusable.count(1);
        return;
    }
    countVerdict(callback(&m_frame.record(), m_frame.data(), static_cast<int>(m_frame.size())));
}

// The kernel numbers the messages before it finds that the socket has no room for one.
void Dispatcher::followSequence(uint32_t sequence) {
    const uint32_t lost = sequence - m_nextSequence;
    m_nextSequence = sequence + 1;
    if (lost == 0) return;
    m_lost.count(lost);
    m_overrun = false;
}

// The kernel has dropped the packet already, so only discarding it has a meaning.
void Dispatcher::countVerdict(int verdict) {
    const bool known = verdict == PKTD_VERDICT_DISCARD || verdict == PKTD_VERDICT_ACCEPT ||
                       verdict == PKTD_VERDICT_REPOST;
    uint64_t& count = m_verdicts[static_cast<size_t>(known ? verdict : PKTD_VERDICT_INVALID)];
    if (count++ != 0 || verdict == PKTD_VERDICT_DISCARD) return;
    say("the verdict " + std::string(verdictName(verdict)) + " (" + std::to_string(verdict) +
        ") has no effect: the frame is a copy, and the packet is dropped");
}

void Dispatcher::sayBursts(bool over) {
    if (over && m_overrun && !m_lost.pending()) {
        say("the receive queue overran; how many frames were lost shows with the next frame");
        m_overrun = false;
    }
    if (!m_lost.pending() && !m_unusable.pending()) return;
    const Burst::Clock::time_point now = Burst::Clock::now();
    // What the log does not take is said later.
    if (const uint64_t lost = m_lost.due(over, now);
        lost != 0 && !say("the receive queue overran, frames lost: " + std::to_string(lost)))
        m_lost.count(lost);
    if (const uint64_t unusable = m_unusable.due(over, now);
        unusable != 0 &&
        !say("log group messages that could not become a frame: " + std::to_string(unusable)))
        m_unusable.count(unusable);
}

}  // namespace pmtud_linux
