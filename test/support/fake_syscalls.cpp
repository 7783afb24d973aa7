// SPDX-License-Identifier: MIT
// System calls that a test observes or makes fail: the network's and the clock's.
#include "fake_syscalls.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "allocations.h"
#include "fake_calls.h"

using allocations::Paused;

namespace {

using fake::play;
using fake::syscalls;

time_t clockSeconds() {
    return fake::clock().hour * 3600 + fake::clock().minute * 60 + fake::clock().second;
}

}  // namespace

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
    const Paused paused;
    const int fd = play(syscalls().calls, "socket", syscalls().socket, {}, domain, type, protocol);
    if (fd >= 0) fake::openSockets.insert(fd);
    return fd;
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    const Paused paused;
    std::string bytes;
    for (socklen_t i = 0; i < length; ++i) {
        bytes += (i == 0 ? "" : " ") + std::to_string(static_cast<const uint8_t*>(value)[i]);
    }
    return play(syscalls().calls, "setsockopt", syscalls().setsockopt, {}, fd, level, option,
                "[" + bytes + "]", length);
}

ssize_t __wrap_sendto(int fd, const void* message, size_t length, int flags,
                      const struct sockaddr* to, socklen_t addressLength) {
    const Paused paused;
    const auto* const bytes = static_cast<const uint8_t*>(message);
    fake::SentMessage sent{{bytes, bytes + length}, {}};
    memcpy(&sent.to, to, sizeof sent.to);
    syscalls().sent.push_back(sent);
    return play(
        syscalls().calls, "sendto", [length] { return syscalls().sendto(length); },
        " to " + fake::hex(&sent.to.sin_addr, 4) + ": " + fake::hex(message, length), fd,
        std::to_string(length) + " bytes", flags, addressLength);
}

int __real_close(int fd);

/// The descriptor is gone even if the call fails, as with the kernel.
int __wrap_close(int fd) {
    const auto socket = fake::openSockets.find(fd);
    const bool isTheTests = socket == fake::openSockets.end() && fcntl(fd, F_GETFD) != -1;
    if (isTheTests) return __real_close(fd);
    const Paused paused;
    if (socket != fake::openSockets.end()) fake::openSockets.erase(socket);
    return play(syscalls().calls, "close", syscalls().close, {}, fd);
}

unsigned __wrap_if_nametoindex(const char* name) {
    const auto answer = [name] { return syscalls().ifNameToIndex(name); };
    return play(syscalls().calls, "if_nametoindex", answer, {}, fake::Quoted{name});
}

time_t __wrap_time(time_t* out) {
    const Paused paused;
    const auto failure = fake::made("time", "");
    const time_t now = failure ? failure->result : clockSeconds();
    if (out != nullptr) *out = now;
    return now;
}

/// The time zone is UTC, whatever the machine's.
struct tm* __wrap_localtime_r(const time_t* seconds, struct tm* result) {
    const Paused paused;
    if (fake::made("localtime_r", "") || fake::clock().localtimeFails) return nullptr;
    gmtime_r(seconds, result);
    // A leap second, which shares its number with the second before it.
    if (*seconds == clockSeconds()) {
        result->tm_hour = fake::clock().hour;
        result->tm_min = fake::clock().minute;
        result->tm_sec = fake::clock().second;
    }
    return result;
}

/// The second has changed since the call of time.
int __wrap_gettimeofday(struct timeval* now, void*) {
    const Paused paused;
    if (const auto failure = fake::made("gettimeofday", ""))
        return static_cast<int>(failure->result);
    now->tv_sec = clockSeconds() + 1;
    now->tv_usec = fake::clock().microseconds;
    return 0;
}

}  // extern "C"
