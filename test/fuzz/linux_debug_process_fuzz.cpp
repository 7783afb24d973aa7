// SPDX-License-Identifier: MIT
// Fuzzes the lines to the system log: each is accepted once, or counted as lost once.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debug_process.h"
#include "frame_lines.h"
#include "input.h"
#include "say.h"
#include "system_log.h"

using fuzz::Input;
using fuzz::require;
using pmtud_linux::FrameLines;
using pmtud_linux::Priority;
using pmtud_linux::SystemLog;

namespace {

constexpr int kActionsPerInput = 120;
constexpr size_t kLongestLine = 1024;
constexpr size_t kLinesKept = 16;

std::string lineOf(int priority, uint32_t module, const std::string& text) {
    std::string line = "<" + std::to_string(priority) + ">Jan  1 00:00:00 " +
                       program_invocation_short_name + "[" + std::to_string(getpid()) +
                       "]: " + std::to_string(module) + text;
    line.resize(std::min(line.size(), kLongestLine));
    return line;
}

// The system's side, and what the log is expected to know.
struct World {
    explicit World(Input& script) : input(script) {}

    Input& input;
    SystemLog log;
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};

    int nextSocket = 1000;
    int socket = -1;         // the log's open one
    bool connected = false;  // and whether it leads to the log daemon
    std::optional<std::chrono::steady_clock::time_point> lastAttempt;
    bool healthy = false;  // nothing fails any more

    std::vector<std::string> kept;
    uint64_t lost = 0;
    std::vector<std::string> batch;  // what is to be written now, the line about lost lines first
    size_t accepted = 0;             // of the batch

    void begin(std::vector<std::string> lines) {
        batch = std::move(lines);
        accepted = 0;
        if (lost != 0)
            batch.insert(batch.begin(),
                         lineOf(28, 89, " PMTUD-Linux: " + std::to_string(lost) + " lines lost"));
    }

    // True if all were accepted.
    bool end() {
        if (batch.empty()) return true;
        const bool all = accepted == batch.size();
        size_t lines = batch.size();
        size_t taken = accepted;
        if (lost != 0) {
            --lines;
            if (taken != 0) {
                --taken;
                lost = 0;
            }
        }
        lost += lines - taken;
        batch.clear();
        return all;
    }
};

World* world = nullptr;

int fail(int error) {
    errno = error;
    return -1;
}

std::string drawText(Input& input) {
    constexpr std::array<size_t, 8> kLengths = {0, 1, 7, 100, 960, 990, 1024, 3000};
    const size_t length = input.oneOf(kLengths) + input.byte() % 48;
    std::string text;
    const auto piece = input.bytes(input.byte() % 16);
    for (size_t i = 0; i < length; ++i)
        text += piece.empty() ? 'x' : static_cast<char>(piece[i % piece.size()]);
    // A C string ends at its first zero.
    text.resize(strlen(text.c_str()));
    return text;
}

enum class Fate { kWritten, kKept, kIgnored };

void hand(Input& input, Fate fate) {
    const auto module = input.number<uint32_t>();
    const std::string text = drawText(input);
    if (fate == Fate::kWritten) {
        world->begin({lineOf(31, module, text)});
        const int result = debug_process(module, "%s", text.c_str());
        require((result == 0) == world->end() && result <= 0, "whether the line was taken");
        return;
    }
    if (fate == Fate::kKept) {
        world->kept.push_back(lineOf(31, module, text));
        if (world->kept.size() == kLinesKept) {
            world->begin(world->kept);
            world->kept.clear();
        }
    }
    require(debug_process(module, "%s", text.c_str()) == 0, "a line that is kept or ignored");
    world->end();
}

void sayOne(Input& input) {
    constexpr std::array<Priority, 3> kPriorities = {Priority::kError, Priority::kWarning,
                                                     Priority::kInfo};
    constexpr std::array<int, 3> kNumbers = {27, 28, 30};
    const size_t which = input.byte() % kPriorities.size();
    const std::string text = drawText(input);
    world->begin({lineOf(kNumbers[which], 89, " PMTUD-Linux: " + text)});
    const bool taken = pmtud_linux::say(kPriorities[which], text);
    require(taken == world->end(), "whether the platform's line was taken");
}

void endFrame(std::optional<FrameLines>& frame, Fate& fate) {
    world->begin(world->kept);
    if (world->kept.empty()) world->batch.clear();
    world->kept.clear();
    frame.reset();
    world->end();
    fate = Fate::kWritten;
}

}  // namespace

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
    require(domain == AF_UNIX && type == (SOCK_DGRAM | SOCK_CLOEXEC) && protocol == 0, "a socket");
    require(world->socket < 0, "one socket at a time");
    require(!world->lastAttempt || world->now - *world->lastAttempt >= std::chrono::seconds(1),
            "at most one attempt per second while they fail");
    if (!world->healthy && world->input.byte() % 8 == 0) {
        world->lastAttempt = world->now;
        return fail(EMFILE);
    }
    world->socket = world->nextSocket++;
    world->connected = false;
    return world->socket;
}

int __wrap_connect(int fd, const sockaddr* to, socklen_t) {
    require(fd == world->socket && fd >= 0, "the log's socket");
    require(strcmp(to->sa_data, "/dev/log") == 0, "where the log is");
    world->lastAttempt = world->now;
    constexpr std::array<int, 4> kErrors = {0, 0, ENOENT, ECONNREFUSED};
    const int error = world->healthy ? 0 : world->input.oneOf(kErrors);
    if (error != 0) return fail(error);
    world->connected = true;
    world->lastAttempt.reset();
    return 0;
}

int __wrap_close(int fd) {
    require(fd >= 0 && fd == world->socket, "only the log's socket is closed");
    world->socket = -1;
    return 0;
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    require(fd == world->socket, "the log's socket");
    require(flags == (MSG_DONTWAIT | MSG_NOSIGNAL), "nothing waits");
    require(count != 0 && count == world->batch.size() - world->accepted,
            "the lines that are left");
    for (unsigned int i = 0; i < count; ++i) {
        const msghdr& message = messages[i].msg_hdr;
        require(message.msg_iovlen == 1 && message.msg_name == nullptr, "one line per datagram");
        const std::string_view text(static_cast<const char*>(message.msg_iov->iov_base),
                                    message.msg_iov->iov_len);
        require(text == world->batch[world->accepted + i], "the text of a line, and its order");
    }
    if (fd < 0) return fail(EBADF);
    require(world->connected, "a socket that is connected");
    const uint8_t what = world->healthy ? 0 : world->input.byte();
    if (what % 4 == 3) {
        constexpr std::array<int, 8> kErrors = {EAGAIN,       ENOBUFS,    EMSGSIZE, ECONNREFUSED,
                                                ECONNREFUSED, ECONNRESET, ENOTCONN, EPERM};
        return fail(world->input.oneOf(kErrors));
    }
    unsigned int taken = count;
    if (what % 4 == 2) taken = 1 + world->input.byte() % count;
    world->accepted += taken;
    return static_cast<int>(taken);
}

time_t __wrap_time(time_t*) { return 0; }

}  // extern "C"

// The mangled names of std::chrono::steady_clock::now and SystemLog::instance, with the results
// as C has them.
extern "C" {

int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return world->now.time_since_epoch().count();
}

SystemLog* __wrap__ZN11pmtud_linux9SystemLog8instanceEv() { return &world->log; }

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int zone = setenv("TZ", "UTC0", 1);
    require(zone == 0, "a time zone");
    Input input(data, size);
    const auto fresh = std::make_unique<World>(input);
    world = fresh.get();
    std::optional<FrameLines> frame;
    Fate fate = Fate::kWritten;
    for (int count = 0; count < kActionsPerInput && !input.exhausted(); ++count) {
        switch (input.byte() % 8) {
            case 0:
                sayOne(input);
                break;
            case 1:
                world->now += std::chrono::milliseconds(input.byte() * 8);
                break;
            case 2:
                world->log.lose();
                ++world->lost;
                break;
            case 3:
                if (frame) {
                    endFrame(frame, fate);
                } else {
                    fate = input.byte() % 4 == 0 ? Fate::kIgnored : Fate::kKept;
                    frame.emplace(fate == Fate::kKept);
                }
                break;
            default:
                hand(input, fate);
        }
    }
    if (frame) endFrame(frame, fate);
    // A log that accepts every line again gets the count of all lost ones.
    world->healthy = true;
    world->now += std::chrono::seconds(2);
    world->begin({lineOf(31, 89, " last")});
    require(debug_process(89, " last") == 0 && world->end(), "the last line");
    require(world->lost == 0, "what was lost is reported");
    return 0;
}
