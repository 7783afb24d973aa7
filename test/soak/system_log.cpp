// SPDX-License-Identifier: MIT
// The lab's system log: reads /dev/log and counts what the daemon reports.
#include "system_log.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <system_error>

namespace soak {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The number after the words, if the text contains them.
std::optional<uint64_t> numberBehind(std::string_view text, std::string_view words) {
    const size_t at = text.find(words);
    if (at == text.npos) return std::nullopt;
    uint64_t number = 0;
    const char* const start = text.data() + at + words.size();
    const auto [end, error] = std::from_chars(start, text.data() + text.size(), number);
    return error == std::errc{} && end != start ? std::optional(number) : std::nullopt;
}

}  // namespace

SystemLog::SystemLog() {
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_wake < 0 || m_socket < 0) fail("system log");
    sockaddr_un log{};
    log.sun_family = AF_UNIX;
    std::strcpy(log.sun_path, "/dev/log");
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&log), sizeof log) != 0) fail("/dev/log");
    m_thread = std::thread([this] { read(); });
}

SystemLog::~SystemLog() {
    m_ending = true;
    wake();
    m_thread.join();
    unlink("/dev/log");
    close(m_socket);
    close(m_wake);
}

void SystemLog::setReading(bool reading) {
    m_reading = reading;
    wake();
}

void SystemLog::wake() const { eventfd_write(m_wake, 1); }

void SystemLog::read() {
    // The daemon never waits for its log: what is not read soon is lost.
    setpriority(PRIO_PROCESS, 0, -15);
    constexpr size_t kBatch = 64;
    std::array<std::array<char, 1100>, kBatch> lines;
    std::array<iovec, kBatch> pieces;
    std::array<mmsghdr, kBatch> messages{};
    for (size_t i = 0; i < kBatch; ++i) {
        pieces[i] = {lines[i].data(), lines[i].size()};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (;;) {
        pollfd ready[] = {{m_reading ? m_socket : -1, POLLIN, 0}, {m_wake, POLLIN, 0}};
        if (poll(ready, 2, -1) < 0) continue;
        eventfd_t ignored = 0;
        if (ready[1].revents != 0) eventfd_read(m_wake, &ignored);
        if (m_ending) return;
        if (!m_reading) continue;
        const int count = recvmmsg(m_socket, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        for (size_t i = 0; count > 0 && i < static_cast<size_t>(count); ++i)
            take({lines[i].data(), messages[i].msg_len});
    }
}

void SystemLog::take(std::string_view line) {
    const size_t at = line.find("]: 89 ");
    const std::string_view text = at == line.npos ? line : line.substr(at + 6);
    if (!text.starts_with("PMTUD-Prot: ")) {
        takePlatformLine(text);
        return;
    }
    ++m_counts.lines;
    if (text.find("Received frame of size: ") != text.npos) ++m_counts.received;
    if (text.find("message sent to source ") != text.npos) ++m_counts.sent;
    if (text.find("Invalid VLAN ") != text.npos) ++m_counts.invalid;
}

void SystemLog::takePlatformLine(std::string_view text) {
    if (text.ends_with(" lines lost")) {
        m_counts.linesLost += numberBehind(text, "PMTUD-Linux: ").value_or(0);
    } else if (const auto messages = numberBehind(text, "messages lost: ")) {
        m_counts.messagesLost += *messages;
    } else if (const auto unanswered = numberBehind(text, "that nobody answered: ")) {
        m_counts.unanswered += *unanswered;
    } else if (const auto unlogged = numberBehind(text, "frames answered but not logged: ")) {
        m_counts.unlogged += *unlogged;
    } else {
        ++m_counts.others;
        if (m_said.insert(std::string(text)).second)
            std::fprintf(stderr, "the daemon reports: %.*s\n", static_cast<int>(text.size()),
                         text.data());
    }
}

}  // namespace soak
