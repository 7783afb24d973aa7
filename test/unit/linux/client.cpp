// SPDX-License-Identifier: MIT
// A process that attaches to the packet-dispatch queue as the daemon does.
#include "client.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "cfg.h"
#include "world.h"

namespace {

constexpr size_t kLargestFrame = 65593;

constexpr char kAskCount = 'c';
constexpr char kAskGate = 'g';

// One datagram from the process: the results of the two calls, or this followed by a frame.
struct Report {
    int attached = 0;
    int started = 0;
    st_pktd_shm_queue_entry_ctrl_t control{};
    bool zeroBehind = false;
    bool signalsBlocked = false;
};

// The process's own side; the callback has no argument to find it by.
ClientOptions options;
int channel = -1;
int icmp4 = -1;
int icmp6 = -1;
std::atomic<bool> gateOpen{true};
std::atomic<int> frames{0};

void report(const Report& head, const uint8_t* frame, size_t size) {
    iovec pieces[] = {{const_cast<Report*>(&head), sizeof head},
                      {const_cast<uint8_t*>(frame), size}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    if (sendmsg(channel, &message, MSG_NOSIGNAL) < 0) _exit(1);
}

// "Too big" with the client's own MTU and the frame's IP header, to the frame's source. What the
// kernel does with it is the test's matter; it fills in the checksum of the second one.
void answer(const uint8_t* frame) {
    const uint8_t* const packet = frame + 18;
    Bytes message = {3, 4, 0, 0, 0, 0, kAnsweredMtu >> 8, kAnsweredMtu & 0xff};
    if (packet[0] >> 4 == 4) {
        message.insert(message.end(), packet, packet + 28);
        put16(message, 2, checksum(message));
        sockaddr_in to{};
        to.sin_family = AF_INET;
        memcpy(&to.sin_addr, packet + 12, sizeof to.sin_addr);
        sendto(icmp4, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
        return;
    }
    message[0] = 2;
    message[1] = 0;
    message.insert(message.end(), packet, packet + 48);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    memcpy(&to.sin6_addr, packet + 8, sizeof to.sin6_addr);
    sendto(icmp6, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
}

int callback(const st_pktd_shm_queue_entry_data_t* entry, uint8_t* frame, int len) {
    if (options.throws) throw std::runtime_error("the callback's own");
    gateOpen.wait(false);
    answer(frame);
    ++frames;
    if (options.countsOnly) return options.verdict;
    Report head;
    head.control = entry->ctrl;
    head.zeroBehind =
        std::all_of(frame + len, frame + kLargestFrame, [](uint8_t byte) { return byte == 0; });
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    head.signalsBlocked = true;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE})
        if (sigismember(&blocked, signal) != 1) head.signalsBlocked = false;
    report(head, frame, static_cast<size_t>(len));
    return options.verdict;
}

void dropCapability(int capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &header, data) != 0) _exit(1);
    const auto word = static_cast<size_t>(capability / 32);
    data[word].effective &= ~(1U << (capability % 32));
    data[word].permitted &= ~(1U << (capability % 32));
    data[word].inheritable = 0;
    if (syscall(SYS_capset, &header, data) != 0) _exit(1);
}

[[noreturn]] void live() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    // No other descriptor of the test is to live on in this process, its log socket least.
    dup2(channel, 3);
    channel = 3;
    close_range(4, ~0U, 0);
    if (options.throws && freopen("/dev/null", "w", stderr) == nullptr) _exit(1);
    if (options.without) dropCapability(*options.without);
    gateOpen = !options.gated;
    icmp4 = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    icmp6 = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);

    Report head;
    cfg_init();
    head.attached = attach();
    if (head.attached == 0) head.started = startThread(callback);
    report(head, nullptr, 0);
    char command = 0;
    while (read(channel, &command, 1) > 0) {
        if (command == kAskCount) {
            head.attached = frames;
            report(head, nullptr, 0);
            continue;
        }
        gateOpen = true;
        gateOpen.notify_all();
    }
    std::exit(0);
}

}  // namespace

Client::Client(const ClientOptions& wanted) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    std::fflush(nullptr);
    m_process = fork();
    if (m_process < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (m_process == 0) {
        options = wanted;
        channel = ends[1];
        live();
    }
    close(ends[1]);
    m_channel.reset(ends[0]);
    awaitReadable(m_channel.get(), "the client to attach");
    Report head;
    if (recv(m_channel.get(), &head, sizeof head, 0) != sizeof head)
        throw std::runtime_error("the client died");
    m_attached = head.attached;
    m_started = head.started;
}

Client::~Client() {
    if (m_process < 0) return;
    EXPECT_EQ(stop(), 0) << "the client did not exit as it should";
}

Delivered Client::next() {
    awaitReadable(m_channel.get(), "a frame");
    Bytes bytes(sizeof(Report) + kLargestFrame);
    const ssize_t length = recv(m_channel.get(), bytes.data(), bytes.size(), 0);
    if (length < static_cast<ssize_t>(sizeof(Report))) throw std::runtime_error("the client died");
    Report head;
    memcpy(&head, bytes.data(), sizeof head);
    return {head.control, Bytes(bytes.begin() + sizeof head, bytes.begin() + length),
            head.zeroBehind, head.signalsBlocked};
}

void Client::openGate() {
    if (send(m_channel.get(), &kAskGate, 1, MSG_NOSIGNAL) != 1)
        throw std::system_error(errno, std::generic_category(), "gate");
}

uint64_t Client::count() {
    if (send(m_channel.get(), &kAskCount, 1, MSG_NOSIGNAL) != 1)
        throw std::system_error(errno, std::generic_category(), "count");
    Report head;
    if (recv(m_channel.get(), &head, sizeof head, 0) != sizeof head)
        throw std::runtime_error("the client died");
    return static_cast<uint64_t>(head.attached);
}

long Client::anonymousMemory() const {
    std::ifstream status("/proc/" + std::to_string(m_process) + "/status");
    const std::string name = "RssAnon:";
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name)) return std::stol(line.substr(name.size()));
    throw std::runtime_error("no memory to be seen");
}

int Client::stop() {
    m_channel.reset();
    return await();
}

void Client::kill() {
    ::kill(m_process, SIGKILL);
    await();
}

int Client::await() {
    int status = -1;
    waitpid(m_process, &status, 0);
    m_process = -1;
    return status;
}
