// SPDX-License-Identifier: MIT
// The scripted platform: the calls of the process entry to the C library and to operator new,
// which the daemon under test is linked to have wrapped (ld --wrap).
#include <fcntl.h>
#include <sys/file.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "scripted_play.h"

namespace {

std::atomic<bool> allocationsCount = false;
std::atomic<bool> firstAllocationDue = false;
std::atomic<void*> firstAllocation = nullptr;
std::atomic<bool> mainThreadParked = false;

/// Whether the daemon's calls come here at all.
std::atomic<bool> callsAreWrapped = false;

int pidFile = -1;

void* allocate(size_t size) {
    if (!allocationsCount) return ::operator new(size);
    const bool isFirst = firstAllocationDue.exchange(false);
    if (isFirst) scripted::log("operator new");
    scripted::incidentOf("new");
    void* const memory = ::operator new(size);
    if (isFirst) firstAllocation = memory;
    return memory;
}

/// Only the first allocation's end is logged: the daemon makes it in order to keep it.
void noteRelease(void* memory) {
    if (memory != nullptr && firstAllocation.compare_exchange_strong(memory, nullptr)) {
        scripted::log("operator delete");
    }
}

}  // namespace

namespace scripted {

void countAllocationsFromNow() {
    firstAllocationDue = true;
    allocationsCount = true;
}

void awaitMainThreadParked() {
    if (callsAreWrapped) mainThreadParked.wait(false);
}

}  // namespace scripted

extern "C" {

int __wrap_open(const char* path, int flags, mode_t mode) {
    callsAreWrapped = true;
    // Not the daemon's call, but that of the code in it that measures coverage.
    if (std::string_view(path).ends_with(".gcda")) return open(path, flags, mode);
    scripted::log(fake::openText(path, flags, mode));
    if (const std::optional<int> error = scripted::incidentOf("open")) {
        errno = *error;
        return -1;
    }
    pidFile = open(path, flags, mode);
    return pidFile;
}

int __wrap_flock(int fd, int operation) {
    const bool isPidFile = fd != -1 && fd == pidFile;
    scripted::log(fake::callText("flock", isPidFile ? "pidFile" : std::to_string(fd), operation));
    if (const std::optional<int> error = scripted::incidentOf("flock")) {
        errno = *error;
        return -1;
    }
    return flock(fd, operation);
}

// Logged where the argument differs from the last one: the daemon calls this 2,000 times a second.
int __wrap_usleep(useconds_t microseconds) {
    static std::optional<useconds_t> last;
    if (microseconds != last) scripted::log(fake::callText("usleep", microseconds));
    last = microseconds;
    if (!mainThreadParked.exchange(true)) mainThreadParked.notify_all();
    scripted::incidentOf("usleep");
    usleep(microseconds);
    return scripted::answerOf("usleep");
}

// The daemon's log lines take the time from localtime_r and its fraction from gettimeofday.
struct tm* __wrap_localtime_r(const time_t* seconds, struct tm* result) {
    if (const std::optional<int> error = scripted::incidentOf("localtime_r")) {
        errno = *error;
        return nullptr;
    }
    struct tm* const local = localtime_r(seconds, result);
    const std::optional<scripted::Clock>& clock = scripted::script().clock;
    if (local == nullptr || !clock) return local;
    local->tm_hour = clock->hour;
    local->tm_min = clock->minute;
    local->tm_sec = clock->second;
    return local;
}

int __wrap_gettimeofday(struct timeval* now, void* zone) {
    const int result = gettimeofday(now, zone);
    const std::optional<scripted::Clock>& clock = scripted::script().clock;
    if (clock) now->tv_usec = clock->millisecond * 1000;
    return result;
}

// operator new(size_t) and operator delete, by the names that they have where size_t is unsigned
// long and where it is unsigned int.
void* __wrap__Znwm(unsigned long size) { return allocate(size); }

void* __wrap__Znwj(unsigned int size) { return allocate(size); }

void __wrap__ZdlPv(void* memory) {
    noteRelease(memory);
    ::operator delete(memory);
}

void __wrap__ZdlPvm(void* memory, unsigned long) {
    noteRelease(memory);
    ::operator delete(memory);
}

void __wrap__ZdlPvj(void* memory, unsigned int) {
    noteRelease(memory);
    ::operator delete(memory);
}

}  // extern "C"
