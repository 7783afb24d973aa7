// SPDX-License-Identifier: MIT
// Fuzzes the lines to the system log: each is accepted once, or counted as lost once.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "debug_process.h"
#include "frame_lines.h"
#include "input.h"
#include "say.h"
#include "system_log.h"

using fuzz::fail;
using fuzz::Input;
using fuzz::require;
using pmtud_linux::FrameLines;
using pmtud_linux::Priority;
using pmtud_linux::SystemLog;
using Lines = std::vector<std::string>;

namespace {

constexpr int kActionsPerInput = 120;
constexpr size_t kLongestLine = 1024;
constexpr size_t kLinesKept = 16;

// The system's side, and what the log is expected to know.
struct World {
    explicit World(Input& script) : input(script) {}

    Input& input;
    SystemLog log;
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};

    int nextSocket = 1000;
    int socket = -1;         // the log's open one
    bool connected = false;  // to the log daemon
    std::optional<std::chrono::steady_clock::time_point> lastAttempt;
    bool healthy = false;  // nothing fails any more

    Lines kept;
    uint64_t lost = 0;
    Lines batch;          // to be written now, the line about lost lines first
    size_t accepted = 0;  // of the batch
};

World* world = nullptr;

std::string lineOf(int priority, uint32_t module, const std::string& text) {
    std::string line = "<" + std::to_string(priority) + ">Jan  1 00:00:00 " +
                       program_invocation_short_name + "[" + std::to_string(getpid()) +
                       "]: " + std::to_string(module) + text;
    line.resize(std::min(line.size(), kLongestLine));
    return line;
}

// Calls `action`, which must try to write these lines and no others. Whether all were accepted.
template <typename Action>
bool writes(const Lines& lines, Action action) {
    world->batch = lines;
    world->accepted = 0;
    const bool reports = world->lost != 0 && !lines.empty();
    if (reports)
        world->batch.insert(
            world->batch.begin(),
            lineOf(28, 89, " PMTUD-Linux: " + std::to_string(world->lost) + " lines lost"));
    action();
    size_t accepted = world->accepted;
    if (reports && accepted != 0) {
        world->lost = 0;
        --accepted;
    }
    world->lost += lines.size() - accepted;
    world->batch.clear();
    return accepted == lines.size();
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

void writeLine(Input& input, Fate fate) {
    const auto module = input.number<uint32_t>();
    const std::string text = drawText(input);
    const std::string line = lineOf(31, module, text);
    Lines due;
    if (fate == Fate::kWritten) due = {line};
    if (fate == Fate::kKept) world->kept.push_back(line);
    if (world->kept.size() == kLinesKept) due = std::exchange(world->kept, {});
    int result = 0;
    const bool accepted = writes(due, [&] { result = debug_process(module, "%s", text.c_str()); });
    const bool isLost = fate == Fate::kWritten && !accepted;
    require(isLost ? result < 0 : result == 0, "whether the line was lost");
}

void say(Input& input) {
    constexpr std::array<Priority, 3> kPriorities = {Priority::kError, Priority::kWarning,
                                                     Priority::kInfo};
    constexpr std::array<int, 3> kNumbers = {27, 28, 30};
    const size_t which = input.byte() % kPriorities.size();
    const std::string text = drawText(input);
    bool result = false;
    const bool accepted = writes({lineOf(kNumbers[which], 89, " PMTUD-Linux: " + text)},
                                 [&] { result = pmtud_linux::say(kPriorities[which], text); });
    require(result == accepted, "whether the platform's line was accepted");
}

void endFrame(std::optional<FrameLines>& frame) {
    writes(std::exchange(world->kept, {}), [&] { frame.reset(); });
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
    require(strcmp(to->sa_data, "/dev/log") == 0, "the log's path");
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
    const unsigned int taken = what % 4 == 2 ? 1 + world->input.byte() % count : count;
    world->accepted += taken;
    return static_cast<int>(taken);
}

time_t __wrap_time(time_t*) { return 0; }

// The mangled names of std::chrono::steady_clock::now and SystemLog::instance, with results that C
// linkage allows.
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
                say(input);
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
                    endFrame(frame);
                    fate = Fate::kWritten;
                } else {
                    fate = input.byte() % 4 == 0 ? Fate::kIgnored : Fate::kKept;
                    frame.emplace(fate == Fate::kKept);
                }
                break;
            default:
                writeLine(input, fate);
        }
    }
    endFrame(frame);
    // Once the log accepts every line again, it gets the count of all lost ones.
    world->healthy = true;
    world->now += std::chrono::seconds(1);
    const auto writeLast = [] { require(debug_process(89, " last") == 0, "the last line"); };
    require(writes({lineOf(31, 89, " last")}, writeLast), "the last line is accepted");
    require(world->lost == 0, "what was lost is reported");
    return 0;
}
