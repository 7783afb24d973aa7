// SPDX-License-Identifier: MIT
// C library calls that a test observes or makes fail; otherwise the real ones are made.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <sstream>

#include "allocations.h"
#include "captured_log.h"
#include "journal.h"

using allocations::Paused;
using fake::callText;
using fake::Journal;

namespace {

bool isJournal(const FILE* file) {
    return Journal::current() != nullptr && file == Journal::channel();
}

}  // namespace

extern "C" {

size_t __real_strftime(char* text, size_t size, const char* format, const struct tm* local);
const char* __real_inet_ntop(int family, const void* address, char* text, socklen_t size);
int __real_fputs(const char* text, FILE* file);
int __real_fflush(FILE* file);
int __real_open(const char* path, int flags, mode_t mode);
int __real_flock(int fd, int operation);
int __real_usleep(useconds_t microseconds);

size_t __wrap_strftime(char* text, size_t size, const char* format, const struct tm* local) {
    const Paused paused;
    if (fake::made("strftime", "")) return 0;
    return __real_strftime(text, size, format, local);
}

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    const Paused paused;
    if (fake::made("inet_ntop", "")) return nullptr;
    return __real_inet_ntop(family, address, text, size);
}

int __wrap_fputs(const char* text, FILE* file) {
    if (!isJournal(file)) return __real_fputs(text, file);
    const Paused paused;
    const auto failure = fake::made("fputs", asGccSpells(text));
    return failure ? static_cast<int>(failure->result) : 1;
}

int __wrap_fflush(FILE* file) {
    if (!isJournal(file)) return __real_fflush(file);
    const Paused paused;
    const auto failure = fake::made("fflush", "");
    return failure ? static_cast<int>(failure->result) : 0;
}

// The process entry's calls, which reach the kernel unless a journal is open.

int __wrap_open(const char* path, int flags, mode_t mode) {
    if (Journal::current() == nullptr) return __real_open(path, flags, mode);
    const Paused paused;
    std::ostringstream text;
    text << "open(" << fake::Quoted{path} << ", " << std::showbase << std::hex << flags << ", "
         << std::oct << mode << ")";
    const auto failure = fake::made("open", text.str());
    return failure ? static_cast<int>(failure->result) : 303;
}

int __wrap_flock(int fd, int operation) {
    if (Journal::current() == nullptr) return __real_flock(fd, operation);
    const Paused paused;
    const auto failure = fake::made("flock", callText("flock", fd, operation));
    return failure ? static_cast<int>(failure->result) : 0;
}

int __wrap_usleep(useconds_t microseconds) {
    const Paused paused;
    const auto failure = fake::made("usleep", callText("usleep", microseconds));
    if (Journal::current() == nullptr) return __real_usleep(microseconds);
    return failure ? static_cast<int>(failure->result) : 0;
}

}  // extern "C"
