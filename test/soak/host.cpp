// SPDX-License-Identifier: MIT
// Host A of the soak: sends packets by windows and judges every answer.
#include "host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>

namespace soak {

using packets::Answer;

namespace {

// Half of what the kernel has room for: all its IPv6 answers, of 2 KiB each with their bookkeeping,
// share one socket of 128 KiB, and on a busy machine a whole window waits in it.
constexpr size_t kWindow = 24;
constexpr size_t kPacedWindow = 16;

constexpr std::chrono::seconds kPatience(10);

// Answers that are larger than their link would come in fragments.
constexpr uint32_t kSmallestMtu = 1280;
constexpr uint32_t kLargestMtu = 1460;

constexpr uint64_t kFaultsSaid = 20;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Mac macOf(const char* interface, const char* what) {
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface);
    const int result = ioctl(probe, SIOCGIFHWADDR, &request);
    close(probe);
    if (result != 0) fail(what);
    Mac mac;
    memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
    return mac;
}

// Calls the function in another network namespace, and comes back.
template <typename Function>
auto inNamespace(const char* path, Function function) {
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int other = open(path, O_RDONLY | O_CLOEXEC);
    if (own < 0 || other < 0 || setns(other, CLONE_NEWNET) != 0) fail(path);
    auto result = function();
    if (setns(own, CLONE_NEWNET) != 0) fail("back to the own namespace");
    close(own);
    close(other);
    return result;
}

Mac gatewayMac(const char* switchNamespace) {
    return inNamespace(switchNamespace, [] { return macOf("bcm0.10", "bcm0.10"); });
}

ifreq egress() {
    ifreq request{};
    std::strcpy(request.ifr_name, "bcm0.20");
    return request;
}

bool isBy(Answerer answerer, const Answer& answer) {
    const bool isKernels = answer.packetLength == (answer.family == 4 ? 576 : 1280);
    const bool isDaemons = answer.messageLength == (answer.family == 4 ? 68 : answer.mtu);
    switch (answerer) {
        case Answerer::kKernel:
            return isKernels;
        case Answerer::kDaemon:
            return isDaemons;
        case Answerer::kEither:
            break;
    }
    return isKernels || isDaemons;
}

// The router may have written into an IPv4 packet's options, which changes the header's checksum.
bool isQuoteOf(std::span<const uint8_t> quote, std::span<const uint8_t> packet, int family) {
    const auto same = [&](size_t from, size_t to) {
        return from >= to || std::equal(quote.begin() + static_cast<ptrdiff_t>(from),
                                        quote.begin() + static_cast<ptrdiff_t>(to),
                                        packet.begin() + static_cast<ptrdiff_t>(from));
    };
    const size_t size = std::min(quote.size(), packet.size());
    const size_t header = size_t{4} * (packet[0] & 15U);
    if (family == 6 || header == 20) return same(0, size);
    return same(0, 10) && same(12, 20) && same(header, size);
}

template <typename Some, typename Others>
bool equal(const Some& bytes, const Others& others) {
    return std::equal(bytes.begin(), bytes.end(), others.begin(), others.end());
}

}  // namespace

Host::Host(uint64_t seed, const char* interface, const char* switchNamespace)
    : m_mac(macOf(interface, interface)),
      m_forge(seed, m_mac, gatewayMac(switchNamespace)),
      m_ring(kRingSize),
      m_figures(kinds().size()) {
    openSockets(interface, switchNamespace);
    ifreq request = egress();
    if (ioctl(m_control, SIOCGIFMTU, &request) != 0) fail("MTU of bcm0.20");
    m_mtus.push_back(static_cast<uint32_t>(request.ifr_mtu));
}

Host::~Host() {
    for (const int fd : m_outs) close(fd);
    for (const int fd : {m_in, m_control}) close(fd);
}

void Host::openOut(const char* interface) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    m_outs.push_back(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (m_outs.back() < 0 ||
        bind(m_outs.back(), reinterpret_cast<const sockaddr*>(&link), sizeof link) != 0)
        fail(interface);
}

void Host::setSpread(bool isSpread) {
    for (; m_outs.size() > 1; m_outs.pop_back()) close(m_outs.back());
    for (int i = 11; isSpread && if_nametoindex(("eth" + std::to_string(i)).c_str()) != 0; ++i)
        openOut(("eth" + std::to_string(i)).c_str());
}

void Host::openSockets(const char* interface, const char* switchNamespace) {
    openOut(interface);
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    m_in = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_in < 0) fail("packet socket");
    constexpr int kRoom = 64 << 20;
    constexpr int kYes = 1;
    if (setsockopt(m_in, SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) != 0 ||
        setsockopt(m_in, SOL_PACKET, PACKET_IGNORE_OUTGOING, &kYes, sizeof kYes) != 0)
        fail("packet socket");
    link.sll_protocol = htons(ETH_P_ALL);
    if (bind(m_in, reinterpret_cast<const sockaddr*>(&link), sizeof link) != 0) fail(interface);

    m_control =
        inNamespace(switchNamespace, [] { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    if (m_control < 0) fail("control socket");
}

Host::Sent& Host::prepare(size_t kind, Answerer answerer, bool awaited) {
    Sent& sent = m_ring[m_serial % kRingSize];
    const Outcome outcome = kinds()[kind].outcome;
    sent.serial = m_serial;
    sent.kind = kind;
    sent.mtuThen = m_mtus.size() - 1;
    sent.answerer = answerer;
    const bool isKernels = outcome == Outcome::kKernels && answerer != Answerer::kDaemon;
    sent.mayBeAnswered = outcome == Outcome::kAnswered || isKernels;
    sent.awaited = awaited && sent.mayBeAnswered;
    sent.answered = false;
    sent.frame = m_forge.make(kinds()[kind], m_serial);
    if (sent.awaited) ++m_awaited;
    ++m_figures[kind].sent;
    ++m_serial;
    return sent;
}

void Host::sendWindow(size_t first, size_t count) {
    std::array<iovec, kBatch> pieces;
    std::array<mmsghdr, kBatch> messages{};
    size_t done = 0;
    while (done < count) {
        const size_t now = std::min(kBatch, count - done);
        for (size_t i = 0; i < now; ++i) {
            Bytes& frame = m_ring[(first + done + i) % kRingSize].frame;
            pieces[i] = {frame.data(), frame.size()};
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int out = m_outs[(first + done) / kBatch % m_outs.size()];
        const int sent = sendmmsg(out, messages.data(), static_cast<unsigned>(now), 0);
        if (sent < 0 && errno != ENOBUFS && errno != EINTR) fail("send");
        if (sent > 0) done += static_cast<size_t>(sent);
        while (receive()) {
        }
    }
}

bool Host::receive() {
    static std::array<std::array<uint8_t, 2048>, kBatch> frames;
    std::array<iovec, kBatch> pieces;
    std::array<mmsghdr, kBatch> messages{};
    for (size_t i = 0; i < kBatch; ++i) {
        pieces[i] = {frames[i].data(), frames[i].size()};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(m_in, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != EINTR) fail("receive");
    for (size_t i = 0; count > 0 && i < static_cast<size_t>(count); ++i) {
        if (const auto answer = packets::readAnswer({frames[i].data(), messages[i].msg_len}))
            judge(*answer);
    }
    return count > 0;
}

void Host::awaitAnswers() {
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (m_awaited > 0) {
        pollfd readable{m_in, POLLIN, 0};
        poll(&readable, 1, 100);
        const uint64_t before = m_awaited;
        while (receive()) {
        }
        const auto now = std::chrono::steady_clock::now();
        if (m_awaited < before) deadline = now + kPatience;
        if (now < deadline) continue;
        countMissing();
    }
}

void Host::countMissing() {
    for (Sent& sent : m_ring) {
        if (!sent.awaited || sent.answered) continue;
        if (++m_missing <= kFaultsSaid)
            std::fprintf(stderr, "MISSING: the answer to number %u, IPv%d %s\n", sent.serial,
                         kinds()[sent.kind].family, kinds()[sent.kind].name);
        sent.awaited = false;
    }
    m_awaited = 0;
}

void Host::judge(const Answer& answer) {
    const uint32_t mask = answer.family == 4 ? 0xffff : 0xfffff;
    Sent& sent = m_ring[answer.serial % kRingSize];
    const Kind& kind = kinds()[sent.kind];
    const auto wrong = [&](const std::string& what) {
        fault("answer to number " + std::to_string(sent.serial) + ", IPv" +
              std::to_string(kind.family) + " " + kind.name + ", with MTU " +
              std::to_string(answer.mtu) + ": " + what);
    };
    if ((sent.serial & mask) != answer.serial || sent.frame.empty())
        return wrong("the packet is unknown");
    if (!sent.mayBeAnswered) return wrong("it must not be answered");
    if (sent.answered) return wrong("it is answered already");
    sent.answered = true;
    ++m_figures[sent.kind].answered;
    if (sent.awaited) --m_awaited;
    if (!answer.problem.empty()) wrong(answer.problem);
    if (answer.carryDropped) ++m_carriesDropped;

    const auto now = m_mtus.begin() + static_cast<ptrdiff_t>(sent.mtuThen);
    if (std::find(now, m_mtus.end(), answer.mtu) == m_mtus.end())
        wrong("that MTU was not in force");
    if (!isBy(sent.answerer, answer)) wrong("the answer is not its answerer's");
    if (isBy(Answerer::kDaemon, answer)) ++m_byDaemon;
    const auto packet = std::span<const uint8_t>(sent.frame).subspan(14);
    const auto source = answer.family == 4 ? packet.subspan(12, 4) : packet.subspan(8, 16);
    if (!equal(answer.destination, source)) wrong("it goes to another than the sender");
    constexpr std::array<uint8_t, 4> kGateway4{10, 0, 10, 1};
    constexpr std::array<uint8_t, 16> kGateway6{0x20, 0x01, 0x0d, 0xb8, 0, 0x10, 0, 0,
                                                0,    0,    0,    0,    0, 0,    0, 1};
    if (answer.family == 4 ? !equal(answer.source, kGateway4) : !equal(answer.source, kGateway6))
        wrong("it does not come from the switch's address of VLAN 10");
    if (!isQuoteOf(answer.quote, packet, answer.family)) wrong("the quote is not of the packet");
}

void Host::sendAndAwait(uint64_t count, bool allKinds, Answerer answerer, uint64_t rate) {
    using std::chrono::steady_clock;
    m_forge.setSmallest(m_mtus.back() + 1);
    const steady_clock::time_point start = steady_clock::now();
    const size_t atOnce = rate == 0 ? kWindow : kPacedWindow;
    for (uint64_t sent = 0; sent < count;) {
        if (rate != 0)
            std::this_thread::sleep_until(start + std::chrono::milliseconds(1000 * sent / rate));
        const size_t first = m_serial;
        size_t made = 0;
        for (; made < atOnce && sent < count; ++made) {
            const size_t kind = allKinds ? m_forge.chooseKind() : m_serial % 2;
            if (prepare(kind, answerer, true).awaited) ++sent;
        }
        sendWindow(first, made);
        awaitAnswers();
    }
}

void Host::sendWhileMtuChanges(uint64_t count) {
    m_forge.setSmallest(kLargestMtu + 1);
    while (count > 0) {
        const size_t first = m_serial;
        const auto made = static_cast<size_t>(std::min<uint64_t>(count, kWindow));
        for (size_t i = 0; i < made; ++i) prepare(m_serial % 2, Answerer::kEither, true);
        const size_t before = m_forge.below(made + 1);
        sendWindow(first, before);
        changeMtuRandomly();
        // Those that are still to be sent meet the new MTU.
        for (size_t i = before; i < made; ++i)
            m_ring[(first + i) % kRingSize].mtuThen = m_mtus.size() - 1;
        sendWindow(first + before, made - before);
        awaitAnswers();
        count -= made;
    }
}

void Host::sendAndForget(uint64_t count, Answerer answerer, uint64_t rate) {
    using std::chrono::steady_clock;
    m_forge.setSmallest(m_mtus.back() + 1);
    const steady_clock::time_point start = steady_clock::now();
    for (uint64_t sent = 0; sent < count;) {
        if (rate != 0)
            std::this_thread::sleep_until(start + std::chrono::milliseconds(1000 * sent / rate));
        const size_t first = m_serial;
        const auto made = static_cast<size_t>(std::min<uint64_t>(count - sent, kBatch));
        for (size_t i = 0; i < made; ++i) prepare(m_serial % 2, answerer, false);
        sendWindow(first, made);
        sent += made;
    }
}

void Host::settle(std::chrono::milliseconds quiet) {
    pollfd readable{m_in, POLLIN, 0};
    while (poll(&readable, 1, static_cast<int>(quiet.count())) > 0) {
        while (receive()) {
        }
    }
}

void Host::changeMtuRandomly() {
    setMtu(kSmallestMtu + static_cast<uint32_t>(m_forge.below(kLargestMtu - kSmallestMtu + 1)));
}

void Host::setMtu(uint32_t mtu) {
    // Before it is done: an answer may name it at once.
    m_mtus.push_back(mtu);
    ifreq request = egress();
    request.ifr_mtu = static_cast<int>(mtu);
    if (ioctl(m_control, SIOCSIFMTU, &request) != 0) fail("MTU of bcm0.20");
}

void Host::fault(const std::string& what) {
    if (++m_faults <= kFaultsSaid) std::fprintf(stderr, "FAULT: %s\n", what.c_str());
}

uint64_t Host::answered(Outcome outcome) const {
    uint64_t sum = 0;
    for (size_t i = 0; i < m_figures.size(); ++i)
        if (kinds()[i].outcome == outcome) sum += m_figures[i].answered;
    return sum;
}

uint64_t Host::sent(Outcome outcome) const {
    uint64_t sum = 0;
    for (size_t i = 0; i < m_figures.size(); ++i)
        if (kinds()[i].outcome == outcome) sum += m_figures[i].sent;
    return sum;
}

uint64_t Host::missedByReceiver() {
    tpacket_stats statistics{};
    socklen_t size = sizeof statistics;
    if (getsockopt(m_in, SOL_PACKET, PACKET_STATISTICS, &statistics, &size) != 0)
        fail("statistics");
    m_missed += statistics.tp_drops;
    return m_missed;
}

}  // namespace soak
