// SPDX-License-Identifier: MIT
// The daemon as a child process on one of the routers.
#include "daemon.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

using pmtud_linux::Descriptor;

namespace twin {

namespace {

constexpr int kPatience = 20000;  // milliseconds

void check(bool succeeded, const char* what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

Descriptor ruleEvents() {
    Descriptor events(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    check(events.valid(), "netlink socket");
    sockaddr_nl any{};
    any.nl_family = AF_NETLINK;
    check(bind(events.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0, "bind");
    constexpr int kGroup = NFNLGRP_NFTABLES;
    check(
        setsockopt(events.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &kGroup, sizeof kGroup) == 0,
        "nftables events");
    return events;
}

bool endsTransaction(const char* bytes, ssize_t length) {
    int left = static_cast<int>(length);
    const auto* message = reinterpret_cast<const nlmsghdr*>(bytes);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
        if (message->nlmsg_type == ((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN)) return true;
    return false;
}

void awaitRules(const Descriptor& events) {
    alignas(nlmsghdr) std::array<char, 65536> buffer;
    for (;;) {
        pollfd readable{events.get(), POLLIN, 0};
        if (poll(&readable, 1, kPatience) != 1)
            throw std::runtime_error("timed out waiting for the daemon's rules");
        const ssize_t length = recv(events.get(), buffer.data(), buffer.size(), 0);
        check(length >= 0, "nftables events");
        if (endsTransaction(buffer.data(), length)) return;
    }
}

[[noreturn]] void become(const std::string& program, int processor) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    sched_setaffinity(0, sizeof processors, &processors);
    execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
    perror(program.c_str());
    _exit(127);
}

}  // namespace

SystemLog::SystemLog() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "/dev/log");
}

SystemLog::~SystemLog() { unlink("/dev/log"); }

std::vector<std::string> SystemLog::lines() {
    std::vector<std::string> lines;
    std::array<char, 8192> buffer;
    for (;;) {
        const ssize_t length = recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0) return lines;
        const std::string line(buffer.data(), static_cast<size_t>(length));
        const size_t at = line.find("PMTUD-Linux: ");
        if (at != std::string::npos) lines.push_back(line.substr(at));
    }
}

Daemon::Daemon(const std::string& program, const Namespace& router, int processor) {
    router.run([&] {
        const Descriptor events = ruleEvents();
        std::fflush(nullptr);
        m_pid = fork();
        check(m_pid >= 0, "fork");
        if (m_pid == 0) become(program, processor);
        awaitRules(events);
    });
}

Daemon::~Daemon() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool Daemon::isRunning() const {
    siginfo_t ended{};
    check(waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0,
          "waitid");
    return ended.si_pid == 0;
}

}  // namespace twin
