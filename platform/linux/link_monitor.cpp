// SPDX-License-Identifier: MIT
// Lists the kernel's interfaces and follows their changes, through link messages (rtnetlink).
#include "link_monitor.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "link.h"
#include "netlink.h"

namespace pmtud_linux {

namespace {

// An interface's alternative names may take up to 64 KiB of its message. The kernel then sends the
// whole list in datagrams of that size.
constexpr size_t kBufferSize = 131072;

// A thousand interfaces that appear at once must not overrun the socket.
constexpr int kReceiveBuffer = 1 << 20;

// In milliseconds. The kernel answers at once, so this matters only if the end of its list was
// lost.
constexpr int kAnswerTimeout = 1000;

// The negative errno value of the kernel's error message; 0 for any other message.
int errorOf(const nlmsghdr& message) {
    if (message.nlmsg_type != NLMSG_ERROR) return 0;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr)) return 0;
    return static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message))->error;
}

}  // namespace

LinkMonitor::LinkMonitor() : m_buffer(std::make_unique_for_overwrite<char[]>(kBufferSize)) {}

int LinkMonitor::open() {
    if (const int result = openSocket(m_socket, NETLINK_ROUTE, RTMGRP_LINK); result != 0)
        return result;
    // Without the privilege, the system's limit applies. That is enough, because an overrun only
    // costs another list.
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
    return 0;
}

LinkMonitor::Read LinkMonitor::read(const std::function<void(const nlmsghdr&)>& take) const {
    char* const buffer = m_buffer.get();
    sockaddr_nl sender{};
    socklen_t senderSize = sizeof sender;
    const ssize_t received = recvfrom(fd(), buffer, kBufferSize, MSG_DONTWAIT | MSG_TRUNC,
                                      reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (received < 0) {
        if (errno == EAGAIN || errno == EINTR) return Read::kNone;
        return errno == ENOBUFS ? Read::kLost : Read::kFailed;
    }
    if (!isFromKernel(sender, senderSize)) return Read::kSome;
    if (static_cast<size_t>(received) > kBufferSize) return Read::kLost;
    int left = static_cast<int>(wholeMessages(buffer, static_cast<size_t>(received)));
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) take(*message);
    return Read::kSome;
}

int LinkMonitor::list(VlanTable& table) {
    // Changes while the kernel is listing make the list unreliable, so it is requested again.
    constexpr int kAttempts = 10;
    int error = -EAGAIN;
    for (int attempt = 0; attempt < kAttempts && error == -EAGAIN; ++attempt) {
        VlanTable fresh;
        error = listOnce(fresh);
        if (error == 0 || error == -EAGAIN) table = std::move(fresh);
    }
    m_stale = error == -EAGAIN || error == -ETIMEDOUT;
    return m_stale ? 0 : error;
}

int LinkMonitor::listOnce(VlanTable& table) {
    if (const int error = dropStale(); error != 0) return error;
    if (const int error = requestList(); error != 0) return error;
    bool doubtful = false;
    const int error = receiveList(table, doubtful);
    return error == 0 && doubtful ? -EAGAIN : error;
}

// After an overrun, a socket keeps losing changes silently until it is empty. What is discarded
// here is older than the list that follows.
int LinkMonitor::dropStale() const {
    Read stale = Read::kSome;
    while (stale == Read::kSome || stale == Read::kLost) stale = read([](const nlmsghdr&) {});
    return stale == Read::kFailed ? -errno : 0;
}

int LinkMonitor::requestList() {
    alignas(nlmsghdr) std::array<char, 256> request{};
    nlmsghdr* const header = putLinkRequest(request.data(), 0);
    header->nlmsg_flags |= NLM_F_DUMP;
    header->nlmsg_seq = ++m_sequence;
    return mnl_socket_sendto(m_socket.get(), header, header->nlmsg_len) < 0 ? -errno : 0;
}

int LinkMonitor::receiveList(VlanTable& table, bool& doubtful) {
    bool done = false;
    int error = 0;
    const auto take = [&](const nlmsghdr& message) {
        if (message.nlmsg_seq == m_sequence) {
            if ((message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) doubtful = true;
            if (message.nlmsg_type == NLMSG_DONE) done = true;
            if (error == 0) error = errorOf(message);
        }
        if (const auto link = decodeLink(message)) table.apply(*link);
    };
    while (!done && error == 0) {
        const Read result = read(take);
        if (result == Read::kFailed) return -errno;
        if (result == Read::kLost) doubtful = true;
        if (result != Read::kNone) continue;
        pollfd readable{fd(), POLLIN, 0};
        if (poll(&readable, 1, kAnswerTimeout) == 0) return -ETIMEDOUT;
    }
    return error;
}

bool LinkMonitor::follow(VlanTable& table) {
    bool changed = false;
    const auto take = [&](const nlmsghdr& message) {
        const auto link = decodeLink(message);
        if (link && table.apply(*link)) changed = true;
    };
    for (Read result = read(take); result != Read::kNone; result = read(take)) {
        if (result == Read::kLost) m_stale = true;
        if (result == Read::kFailed)
            throw std::system_error(errno, std::generic_category(), "link messages");
    }
    if (!m_stale) return changed;

    if (const int error = list(table); error != 0)
        throw std::system_error(-error, std::generic_category(), "list of links");
    return true;
}

}  // namespace pmtud_linux
