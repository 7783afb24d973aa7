// SPDX-License-Identifier: MIT
// System calls that a test must see or fail: the clock's.
#include <sys/time.h>

#include <ctime>

#include "fake_syscalls.h"

namespace fake {

namespace {
Clock current;
}

Clock& clock() { return current; }

void resetClock() { current = Clock(); }

}  // namespace fake

extern "C" {

time_t __wrap_time(time_t* out) {
    if (out != nullptr) *out = 0;
    return 0;
}

struct tm* __wrap_localtime_r(const time_t*, struct tm* result) {
    if (fake::clock().localtimeFails) return nullptr;
    result->tm_hour = fake::clock().hour;
    result->tm_min = fake::clock().minute;
    result->tm_sec = fake::clock().second;
    return result;
}

int __wrap_gettimeofday(struct timeval* now, void*) {
    now->tv_sec = 0;
    now->tv_usec = fake::clock().microseconds;
    return 0;
}

}  // extern "C"
