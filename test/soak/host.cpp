// SPDX-License-Identifier: MIT
// Host A of the soak: sends packets in windows and judges every answer.
#include "host.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <system_error>
#include <thread>

#include "private_machine.h"

namespace soak {

using machine::check;
using packets::Answer;
using pmtud_linux::Descriptor;
using std::chrono::steady_clock;

namespace {

// Half of what the kernel has room for: all its IPv6 answers, 2 KiB each with their bookkeeping,
// share one socket's buffer of 128 KiB, and on a busy machine a whole window waits there.
constexpr size_t kWindow = 24;
constexpr size_t kPacedWindow = 16;
constexpr size_t kWindowWithoutAnswers = 64;

// More packets than are ever in flight, and a divisor of 2^16.
constexpr size_t kRingSize = 32768;

constexpr std::chrono::seconds kPatience(10);

// Answers that are larger than their link would come in fragments.
constexpr uint32_t kSmallestMtu = 1280;
constexpr uint32_t kLargestMtu = 1460;

constexpr uint64_t kFaultsShown = 20;

ifreq requestFor(const char* interface) {
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", interface);
    return request;
}

Descriptor controlSocket() {
    Descriptor control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(control.valid(), "control socket");
    return control;
}

// For the interfaces of that namespace, whichever namespace it is used in.
Descriptor controlSocketIn(const char* networkNamespace) {
    Descriptor control;
    machine::inNetwork(networkNamespace, [&] { control = controlSocket(); });
    return control;
}

Mac macOf(const Descriptor& control, const char* interface) {
    ifreq request = requestFor(interface);
    check(ioctl(control.get(), SIOCGIFHWADDR, &request) == 0, interface);
    Mac mac;
    memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
    return mac;
}

Descriptor packetSocket(const char* interface, int protocol) {
    Descriptor packets(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    link.sll_protocol = htons(static_cast<uint16_t>(protocol));
    check(packets.valid() &&
              bind(packets.get(), reinterpret_cast<const sockaddr*>(&link), sizeof link) == 0,
          interface);
    return packets;
}

bool isBy(Answerer answerer, const Answer& answer) {
    const bool isKernels = answer.packetLength == (answer.family == 4 ? 576 : 1280);
    const bool isDaemons = answer.messageLength == (answer.family == 4 ? 68 : answer.mtu);
    if (answerer == Answerer::kEither) return isKernels || isDaemons;
    return answerer == Answerer::kKernel ? isKernels : isDaemons;
}

// The router may have written into an IPv4 packet's options, which changes the header's checksum.
bool isQuoteOf(std::span<const uint8_t> quote, std::span<const uint8_t> packet, int family) {
    const size_t header = size_t{4} * (packet[0] & 15U);
    const bool hasOptions = family == 4 && header > 20;
    for (size_t i = 0; i < std::min(quote.size(), packet.size()); ++i) {
        const bool mayDiffer = hasOptions && (i == 10 || i == 11 || (i >= 20 && i < header));
        if (quote[i] != packet[i] && !mayDiffer) return false;
    }
    return true;
}

}  // namespace

Host::Host(uint64_t seed, const char* interface, const char* switchNamespace)
    : m_in(packetSocket(interface, ETH_P_ALL)),
      m_control(controlSocketIn(switchNamespace)),
      m_forge(seed, macOf(controlSocket(), interface), macOf(m_control, "bcm0.10")),
      m_ring(kRingSize),
      m_figures(kinds().size()) {
    m_outs.push_back(packetSocket(interface, 0));
    constexpr int kRoom = 64 << 20;
    constexpr int kYes = 1;
    check(setsockopt(m_in.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0 &&
              setsockopt(m_in.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &kYes, sizeof kYes) == 0,
          "packet socket");
    ifreq request = requestFor("bcm0.20");
    check(ioctl(m_control.get(), SIOCGIFMTU, &request) == 0, "MTU of bcm0.20");
    m_mtus.push_back(static_cast<uint32_t>(request.ifr_mtu));
}

void Host::setSpread(bool isSpread) {
    m_outs.resize(1);
    for (int i = 11; isSpread; ++i) {
        const std::string interface = "eth" + std::to_string(i);
        if (if_nametoindex(interface.c_str()) == 0) return;
        m_outs.push_back(packetSocket(interface.c_str(), 0));
    }
}

const Host::Sent& Host::prepare(size_t kind, Answerer answerer, bool awaited) {
    Sent& sent = sentAs(m_serial);
    const Outcome outcome = kinds()[kind].outcome;
    const bool isKernels = outcome == Outcome::kKernels && answerer != Answerer::kDaemon;
    const bool mayBeAnswered = outcome == Outcome::kAnswered || isKernels;
    sent = {.serial = m_serial,
            .kind = kind,
            .mtuThen = m_mtus.size() - 1,
            .answerer = answerer,
            .mayBeAnswered = mayBeAnswered,
            .awaited = awaited && mayBeAnswered,
            .frame = m_forge.make(kinds()[kind], m_serial)};
    if (sent.awaited) ++m_awaited;
    ++m_figures[kind].sent;
    ++m_serial;
    return sent;
}

void Host::sendWindow(size_t first, size_t count) {
    for (size_t serial = first; serial < first + count; ++serial) {
        const Bytes& frame = sentAs(serial).frame;
        const Descriptor& out = m_outs[serial / kWindowWithoutAnswers % m_outs.size()];
        while (::send(out.get(), frame.data(), frame.size(), 0) < 0)
            check(errno == ENOBUFS || errno == EINTR, "send");
    }
    receive();
}

void Host::receive() {
    std::array<uint8_t, 2048> frame;
    for (;;) {
        const ssize_t size = recv(m_in.get(), frame.data(), frame.size(), MSG_DONTWAIT);
        check(size >= 0 || errno == EAGAIN || errno == EINTR, "receive");
        if (size < 0) return;
        const auto answer = packets::readAnswer({frame.data(), static_cast<size_t>(size)});
        if (answer) judge(*answer);
    }
}

void Host::awaitAnswers() {
    auto deadline = steady_clock::now() + kPatience;
    while (m_awaited > 0) {
        pollfd readable{m_in.get(), POLLIN, 0};
        poll(&readable, 1, 100);
        const uint64_t before = m_awaited;
        receive();
        if (m_awaited < before) deadline = steady_clock::now() + kPatience;
        if (steady_clock::now() >= deadline) countMissing();
    }
}

void Host::countMissing() {
    for (Sent& sent : m_ring) {
        if (!sent.awaited || sent.answered) continue;
        if (++m_missing <= kFaultsShown)
            std::fprintf(stderr, "MISSING: the answer to number %u, IPv%d %s\n", sent.serial,
                         kinds()[sent.kind].family, kinds()[sent.kind].name);
        sent.awaited = false;
    }
    m_awaited = 0;
}

void Host::judge(const Answer& answer) {
    const uint32_t mask = answer.family == 4 ? 0xffff : 0xfffff;
    Sent& sent = sentAs(answer.serial);
    const Kind& kind = kinds()[sent.kind];
    const auto wrong = [&](const std::string& what) {
        if (++m_faults <= kFaultsShown)
            std::fprintf(stderr, "FAULT: answer to number %u, IPv%d %s, with MTU %u: %s\n",
                         sent.serial, kind.family, kind.name, answer.mtu, what.c_str());
    };
    if ((sent.serial & mask) != answer.serial || sent.frame.empty())
        return wrong("the packet is unknown");
    if (!sent.mayBeAnswered) return wrong("it must not be answered");
    if (sent.answered) return wrong("it was already answered");
    sent.answered = true;
    ++m_figures[sent.kind].answered;
    if (sent.awaited) --m_awaited;
    if (!answer.problem.empty()) wrong(answer.problem);
    if (answer.carryDropped) ++m_carriesDropped;

    const auto now = m_mtus.begin() + static_cast<ptrdiff_t>(sent.mtuThen);
    if (std::find(now, m_mtus.end(), answer.mtu) == m_mtus.end())
        wrong("that MTU was not in force");
    if (!isBy(sent.answerer, answer)) wrong("the wrong one of daemon and kernel answered");
    if (isBy(Answerer::kDaemon, answer)) ++m_byDaemon;
    const auto packet = std::span<const uint8_t>(sent.frame).subspan(14);
    const auto source = answer.family == 4 ? packet.subspan(12, 4) : packet.subspan(8, 16);
    if (!std::ranges::equal(answer.destination, source)) wrong("it does not go to the sender");
    static const Bytes gateway4{10, 0, 10, 1};
    static const Bytes gateway6{0x20, 0x01, 0x0d, 0xb8, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    if (!std::ranges::equal(answer.source, answer.family == 4 ? gateway4 : gateway6))
        wrong("it does not come from the switch's address in VLAN 10");
    if (!isQuoteOf(answer.quote, packet, answer.family)) wrong("it does not quote the packet");
}

void Host::send(const Order& order) {
    m_forge.setSmallest(m_mtus.back() + 1);
    const steady_clock::time_point start = steady_clock::now();
    const size_t window = order.rate == 0 ? kWindow : kPacedWindow;
    const size_t atOnce = order.isAwaited ? window : kWindowWithoutAnswers;
    for (uint64_t sent = 0; sent < order.count;) {
        if (order.rate != 0)
            std::this_thread::sleep_until(start +
                                          std::chrono::milliseconds(1000 * sent / order.rate));
        const size_t first = m_serial;
        while (m_serial - first < atOnce && sent < order.count) {
            const size_t kind = order.allKinds ? m_forge.chooseKind() : m_serial % 2;
            if (prepare(kind, order.answerer, order.isAwaited).mayBeAnswered) ++sent;
        }
        sendWindow(first, m_serial - first);
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
        setMtu(kSmallestMtu + static_cast<uint32_t>(m_forge.below(kLargestMtu - kSmallestMtu + 1)));
        // Those that are still to be sent meet the new MTU.
        for (size_t i = before; i < made; ++i) sentAs(first + i).mtuThen = m_mtus.size() - 1;
        sendWindow(first + before, made - before);
        awaitAnswers();
        count -= made;
    }
}

void Host::settle(std::chrono::milliseconds quiet) {
    pollfd readable{m_in.get(), POLLIN, 0};
    while (poll(&readable, 1, static_cast<int>(quiet.count())) > 0) receive();
}

void Host::setMtu(uint32_t mtu) {
    // Before it is done: an answer may name it at once.
    m_mtus.push_back(mtu);
    ifreq request = requestFor("bcm0.20");
    request.ifr_mtu = static_cast<int>(mtu);
    check(ioctl(m_control.get(), SIOCSIFMTU, &request) == 0, "MTU of bcm0.20");
}

Figures Host::figuresOf(Outcome outcome) const {
    Figures sum;
    for (size_t i = 0; i < m_figures.size(); ++i) {
        if (kinds()[i].outcome != outcome) continue;
        sum.sent += m_figures[i].sent;
        sum.answered += m_figures[i].answered;
    }
    return sum;
}

uint64_t Host::missedByReceiver() {
    tpacket_stats statistics{};
    socklen_t size = sizeof statistics;
    check(getsockopt(m_in.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size) == 0,
          "statistics");
    m_missed += statistics.tp_drops;
    return m_missed;
}

}  // namespace soak
