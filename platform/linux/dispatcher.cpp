// SPDX-License-Identifier: MIT
// The dispatcher: keeps the rules up to date and passes refused packets to the receive callback.
#include "dispatcher.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "descriptor.h"
#include "frame_lines.h"
#include "ip_packet.h"
#include "kernel_features.h"
#include "known_vlans.h"
#include "ruleset.h"
#include "say.h"
#include "start_problem.h"
#include "vlan_name.h"

namespace pmtud_linux {

namespace {

// Receive calls between two checks for link changes, so that these are not delayed until a flood
// ends.
constexpr int kReceiveCalls = 4;

constexpr int kRetryInterval = 1000;  // milliseconds

// How long the answers on an interface are left to the kernel after none could be sent there.
constexpr std::chrono::seconds kLeftToKernel(30);

// If the log does not accept the line, a later line covers its events.
void reportBurst(Burst& burst, Priority priority, const std::string& what, bool over,
                 Burst::Clock::time_point now) {
    const uint64_t count = burst.due(over, now);
    if (count != 0 && !say(priority, what + std::to_string(count))) burst.count(count);
}

// Whether the daemon still has a reason to answer, according to the same queries that it makes.
// After the kernel refused the packet, the VLAN may have been removed, or its MTU changed.
bool isStillTooLarge(const Copy& copy, uint32_t egress) {
    const int vlan = cfg_vlan_l3_get_dest_vlan(static_cast<int>(egress));
    const uint32_t mtu = vlan > 0 ? cfg_vlan_l3_get_mtu(vlan) : 0;
    return mtu >= kMinimumMtu && mtu <= kMaximumMtu && copy.packetSize() > mtu;
}

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
    int result = openAll();
    if (result != 0)
        say(Priority::kError, startProblem(result));
    else
        result = installRules();
    if (result != 0) detach();
    return result;
}

// The log group is opened first, for two reasons. Only a process's first netlink socket has its PID
// as port, by which /proc/net/netfilter/nfnetlink_log identifies the process. And if the kernel
// lacks netfilter, opening the group fails, whereas libnftables would end the process.
//
// The rules get a lower descriptor all the same. A dying process closes its descriptors in
// ascending order, and rules that outlived the group would withdraw messages that nobody replaces.
//
// Links are watched before they are listed, so that no change in between is missed.
int Dispatcher::openAll() {
    Descriptor lower(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!lower.valid()) return -errno;
    if (const int result = m_group.open(kLogGroup, kCopySize); result != 0) return result;
    lower.reset();
    if (const int result = m_rules.open(); result != 0) return result;
    if (const int result = m_answers.open(); result != 0) return result;
    if (const int result = m_links.open(); result != 0) return result;
    return m_links.list(m_table);
}

int Dispatcher::installRules() {
    const int result = m_rules.run(tableText() + changeText({}, m_table.vlans()));
    if (result == 0) {
        noteInstalled();
        return 0;
    }
    say(Priority::kError, "cannot install the rules: " + reasonForRefusal());
    return result;
}

void Dispatcher::noteInstalled() {
    for (const auto& [number, vlan] : m_table.vlans()) {
        const auto before = m_installed.find(number);
        if (vlan.alsoNamed == 0) continue;
        if (before != m_installed.end() && before->second.alsoNamed == vlan.alsoNamed) continue;
        say(Priority::kWarning, nameOfVlan(number) + ": the interface is also named " +
                                    nameOfVlan(vlan.alsoNamed) +
                                    "; only the lower VLAN is served, so remove one of the names");
    }
    m_installed = m_table.vlans();
}

std::string Dispatcher::reasonForRefusal() {
    const std::string problem = m_rules.problem();
    if (m_rules.run("list table inet pmtud\n") == 0)
        return "table inet pmtud already exists; end the process that owns it, or delete it "
               "(nft delete table inet pmtud)";
    const std::string missing = missingFeature();
    return missing.empty() ? problem : "this kernel lacks " + missing;
}

void Dispatcher::detach() {
    m_rules.close();
    m_group.close();
}

void Dispatcher::run(pktd_rx_cb_t callback) {
    const KnownVlans known(m_table);
    m_service.ready(m_installed);
    for (;;) {
        pollfd ready[] = {{m_group.fd(), POLLIN, 0}, {m_links.fd(), POLLIN, 0}};
        if (poll(ready, 2, timeout()) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        m_service.keepAlive(Burst::Clock::now());
        if (ready[1].revents != 0 || (retrying() && Burst::Clock::now() >= m_nextTry))
            followLinks();
        if (ready[0].revents != 0)
            receive(callback);
        else
            reportBursts(true);
    }
}

// In milliseconds; -1: there is nothing to do until something arrives.
int Dispatcher::timeout() const {
    const int alive = m_service.interval();
    if (!retrying() && !hasUnreported()) return alive;
    return alive < 0 ? kRetryInterval : std::min(alive, kRetryInterval);
}

void Dispatcher::followLinks() {
    if (m_links.follow(m_table) || m_rulesRefused) applyRules();
    if (retrying()) m_nextTry = Burst::Clock::now() + std::chrono::milliseconds(kRetryInterval);
}

// If the kernel refuses, the rules stay as they were, and the next attempt covers this change and
// all since.
void Dispatcher::applyRules() {
    const std::string commands = changeText(m_installed, m_table.vlans());
    if (!commands.empty() && m_rules.run(commands) != 0) {
        if (!m_rulesRefused)
            say(Priority::kError, "cannot change the rules, retrying: " + m_rules.problem());
        m_rulesRefused = true;
        return;
    }
    noteInstalled();
    m_rulesRefused = false;
    m_service.serves(m_installed);
}

void Dispatcher::receive(pktd_rx_cb_t callback) {
    std::array<LogGroup::Datagram, LogGroup::kAtOnce> datagrams;
    bool over = false;
    for (int call = 0; call < kReceiveCalls && !over; ++call) {
        const int count = m_group.receive(datagrams);
        if (count == -ENOBUFS) {
            m_overrun = true;
        } else if (count < 0 && count != -EAGAIN && count != -EINTR) {
            throw std::system_error(-count, std::generic_category(), "log group");
        }
        for (int i = 0; i < count; ++i) takeAll(datagrams[static_cast<size_t>(i)], callback);
        // Fewer than requested: the queue is empty.
        over = count == -EAGAIN || (count >= 0 && count < static_cast<int>(LogGroup::kAtOnce));
    }
    reportBursts(over);
}

void Dispatcher::takeAll(const LogGroup::Datagram& datagram, pktd_rx_cb_t callback) {
    if (!datagram.usable) {
        m_foreign.count(1);
        return;
    }
    int left = static_cast<int>(datagram.bytes.size());
    const auto* bytes = reinterpret_cast<const nlmsghdr*>(datagram.bytes.data());
    for (; mnl_nlmsg_ok(bytes, left); bytes = mnl_nlmsg_next(bytes, &left)) {
        if (!isLogged(*bytes)) continue;
        if (const auto message = decodeLogMessage(*bytes))
            take(*message, callback);
        else
            m_foreign.count(1);
    }
}

void Dispatcher::take(const LogMessage& message, pktd_rx_cb_t callback) {
    if (message.sequence) followSequence(*message.sequence);
    if (message.prefix == kRefusedPrefix) {
        takeRefused(message, callback);
    } else if (const int vlan = copiedFor(message.prefix);
               vlan == 0 || !m_copies.keep(message, vlan)) {
        m_foreign.count(1);
    }
}

// Only this table's rules set a VLAN as the mark. If another table logged the message, nothing was
// withdrawn.
void Dispatcher::takeRefused(const LogMessage& message, pktd_rx_cb_t callback) {
    if (message.mark < uint32_t{kFirstVlan} || message.mark > uint32_t{kLastVlan}) {
        m_foreign.count(1);
        return;
    }
    const Copy* const copy = m_copies.take(quoteOf(message.payload));
    if (copy != nullptr && m_table.vlanOf(copy->ingress) != 0 && isStillMtu(message, *copy))
        deliver(message, *copy, callback);
    else
        sendKernelAnswer(message, copy);
}

// After the rules withdrew the message, the VLAN's name may have moved to an interface with another
// MTU. The daemon would then announce the wrong one.
bool Dispatcher::isStillMtu(const LogMessage& message, const Copy& copy) const {
    const auto egress = m_table.vlans().find(copy.egressVlan);
    return egress != m_table.vlans().end() && egress->second.mtu == mtuNamedBy(message.payload);
}

void Dispatcher::deliver(const LogMessage& message, const Copy& copy, pktd_rx_cb_t callback) {
    const uint32_t egress = m_table.vlans().at(copy.egressVlan).ifindex;
    m_frame.build(copy, m_table.vlanOf(copy.ingress), egress, quoteOf(message.payload));
    const auto now = Burst::Clock::now();
    const bool logged = m_budget.take(now);
    if (!logged) m_unlogged.count(1);
    {
        const FrameLines lines(logged);
        countVerdict(callback(&m_frame.record(), m_frame.data(), static_cast<int>(m_frame.size())));
    }
    if (!m_answers.hasLeft()) {
        if (isStillTooLarge(copy, egress)) noteLoss(message.egress, now);
        sendKernelAnswer(message, &copy);
    } else if (m_answerNews.left(message.egress, now)) {
        say(Priority::kWarning, nameOf(message.egress) + ": the answers leave this router again");
    }
}

void Dispatcher::noteLoss(uint32_t ifindex, Burst::Clock::time_point now) {
    if (!m_answerNews.lost(ifindex, now)) return;
    say(Priority::kWarning,
        nameOf(ifindex) +
            ": the answers do not leave this router, so the kernel answers; allow them in the "
            "output hook: icmp type destination-unreachable accept; icmpv6 type packet-too-big "
            "accept");
}

// Somebody must answer, so the kernel's message is sent after all. If that fails, the next ones on
// that interface are not withdrawn.
void Dispatcher::sendKernelAnswer(const LogMessage& message, const Copy* copy) {
    const int result = m_kernelAnswer.send(message, copy);
    // If the message passed through the rules, they counted it as an answer.
    m_answers.catchUp();
    if (result == 0) return;
    m_unanswered.count(1);
    leaveToKernel(message.egress);
}

void Dispatcher::leaveToKernel(uint32_t ifindex) {
    const auto now = Burst::Clock::now();
    std::erase_if(m_leftToKernel, [now](const auto& one) { return one.second <= now; });
    if (m_leftToKernel.contains(ifindex)) return;
    const int seconds = static_cast<int>(kLeftToKernel.count());
    const bool isLeft = m_rules.run(leaveToKernelText(ifindex, seconds)) == 0;
    m_leftToKernel[ifindex] = now + (isLeft ? kLeftToKernel : std::chrono::seconds(1));
    if (!isLeft)
        say(Priority::kError, "cannot leave the answers to the kernel: " + m_rules.problem());
}

std::string Dispatcher::nameOf(uint32_t ifindex) const {
    const int vlan = m_table.vlanOf(ifindex);
    return vlan != 0 ? nameOfVlan(vlan) : "interface " + std::to_string(ifindex);
}

// The kernel numbers a message before it finds that the socket has no room for it.
void Dispatcher::followSequence(uint32_t sequence) {
    const uint32_t lost = sequence - m_nextSequence;
    m_nextSequence = sequence + 1;
    if (lost == 0) return;
    m_lost.count(lost);
    m_overrun = false;
}

// The packet has already been dropped, so only the verdict discard makes sense.
void Dispatcher::countVerdict(int verdict) {
    const bool known = verdict == PKTD_VERDICT_DISCARD || verdict == PKTD_VERDICT_ACCEPT ||
                       verdict == PKTD_VERDICT_REPOST;
    uint64_t& count = m_verdicts[static_cast<size_t>(known ? verdict : PKTD_VERDICT_INVALID)];
    if (count++ != 0 || verdict == PKTD_VERDICT_DISCARD) return;
    say(Priority::kWarning,
        "the verdict " + std::string(verdictName(verdict)) + " (" + std::to_string(verdict) +
            ") has no effect: the frame is a copy, and the kernel has refused the packet");
}

void Dispatcher::reportBursts(bool over) {
    if (over && m_overrun && !m_lost.pending()) {
        say(Priority::kWarning,
            "the receive queue overran; the next message will show how many were lost");
        m_overrun = false;
    }
    if (!hasUnreported()) return;
    const Burst::Clock::time_point now = Burst::Clock::now();
    reportBurst(m_lost, Priority::kWarning, "the receive queue overran, messages lost: ", over,
                now);
    reportBurst(m_unanswered, Priority::kWarning, "refused packets that nobody answered: ", over,
                now);
    // At most once per second, even if each frame is a burst by itself: the purpose of this line is
    // to save lines.
    reportBurst(m_unlogged, Priority::kInfo, "frames answered but not logged: ", false, now);
    reportBurst(m_foreign, Priority::kWarning,
                "log group " + std::to_string(kLogGroup) +
                    ": ignored messages that this table did not log: ",
                over, now);
}

}  // namespace pmtud_linux
