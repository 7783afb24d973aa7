// SPDX-License-Identifier: MIT
// A process that attaches to the packet-dispatch queue as the daemon does.
#include "client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "cfg.h"
#include "world.h"

namespace {

constexpr size_t kLargestFrame = 65593;

// One datagram from the process: the results of the two calls, or this followed by a frame.
struct Report {
    int attached = 0;
    int started = 0;
    st_pktd_shm_queue_entry_ctrl_t control{};
    bool signalsBlocked = false;
};

// The process's own side; the callback has no argument to find it by.
// Never destroyed: the receive thread reads it until the process ends.
ClientOptions& options = *new ClientOptions;
int channel = -1;
int icmp4 = -1;
int icmp6 = -1;
std::atomic<bool> gateOpen{true};

void report(const Report& head, uint8_t* frame, size_t size) {
    iovec pieces[] = {{const_cast<Report*>(&head), sizeof head}, {frame, size}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    // It fails if the test is over and has closed its end.
    sendmsg(channel, &message, MSG_NOSIGNAL);
}

// "Too big" with the client's own MTU and the frame's IP header, to the frame's source. The kernel
// fills in ICMPv6's checksum.
void answer(const uint8_t* frame) {
    const uint8_t* const packet = frame + 18;
    Bytes message = {3, 4, 0, 0, 0, 0, kAnsweredMtu >> 8, kAnsweredMtu & 0xff};
    if (packet[0] >> 4 == 4) {
        message.insert(message.end(), packet, packet + 28);
        packets::put16(&message[2], ~packets::onesSum(message) & 0xffff);
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
    gateOpen.wait(false);
    answer(frame);
    Report head;
    head.control = entry->ctrl;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    head.signalsBlocked = true;
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE})
        if (sigismember(&blocked, signal) != 1) head.signalsBlocked = false;
    report(head, frame, static_cast<size_t>(len));
    static size_t calls = 0;
    return options.verdicts[calls++ % options.verdicts.size()];
}

[[noreturn]] void live() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The process must not keep the test's other descriptors open, least of all its log socket.
    dup2(channel, 3);
    channel = 3;
    close_range(4, ~0U, 0);
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
        gateOpen = true;
        gateOpen.notify_all();
    }
    std::exit(0);
}

}  // namespace

Client::Client(const ClientOptions& wanted) {
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    std::fflush(nullptr);
    m_process = fork();
    check(m_process >= 0, "fork");
    if (m_process == 0) {
        // Its number may be 0, which live() does not close.
        close(ends[0]);
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
    EXPECT_EQ(head.attached, 0);
    EXPECT_EQ(head.started, 0);
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
    return {head.control, cut(bytes, sizeof head, static_cast<size_t>(length)),
            head.signalsBlocked};
}

void Client::openGate() { check(::send(m_channel.get(), "g", 1, MSG_NOSIGNAL) == 1, "gate"); }

long Client::anonymousMemory() const {
    std::ifstream status("/proc/" + std::to_string(m_process) + "/status");
    const std::string name = "RssAnon:";
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name)) return std::stol(line.substr(name.size()));
    throw std::runtime_error("the client's memory cannot be read");
}

int Client::stop() {
    m_channel.reset();
    int status = -1;
    waitpid(m_process, &status, 0);
    m_process = -1;
    return status;
}
