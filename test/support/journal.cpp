// SPDX-License-Identifier: MIT
// The journal of everything that leaves the daemon, and calls that fail when a test asks for it.
#include "journal.h"

#include <cerrno>
#include <deque>
#include <map>

#include "QVLog.h"
#include "allocations.h"
#include "fake_platform.h"
#include "fake_syscalls.h"

namespace fake {

namespace {

Journal* open = nullptr;
std::map<std::string, std::deque<std::optional<Failure>>> store;
std::map<std::string, std::function<void()>> hooks;

void noteFailedAllocation() {
    const allocations::Paused paused;
    if (open != nullptr) open->note("operator new fails");
}

}  // namespace

void fail(const std::string& call, Failure failure, int times, int before) {
    auto& due = store[call];
    due.insert(due.end(), static_cast<size_t>(before), std::nullopt);
    due.insert(due.end(), static_cast<size_t>(times), failure);
}

void on(const std::string& call, std::function<void()> hook) { hooks[call] = std::move(hook); }

void reset() {
    resetPlatform();
    resetSyscalls();
    resetClock();
    openSockets.clear();
    store.clear();
    hooks.clear();
}

std::optional<Failure> made(const char* call, const std::string& entry) {
    if (open != nullptr && !entry.empty()) open->note(entry);
    if (open != nullptr && entry.empty() && open->detailed) open->note(call);
    if (const auto hook = hooks.find(call); hook != hooks.end()) hook->second();
    const auto found = store.find(call);
    if (found == store.end() || found->second.empty()) return std::nullopt;
    const std::optional<Failure> failure = found->second.front();
    found->second.pop_front();
    if (failure) errno = failure->error;
    return failure;
}

Journal::Journal(int32_t level, bool isDetailed)
    : detailed(isDetailed), m_level(qv::reportingLevel()), m_stream(qv::stream()) {
    qv::reportingLevel() = level;
    qv::stream() = channel();
    open = this;
    allocations::onFailure = noteFailedAllocation;
}

Journal::~Journal() {
    open = nullptr;
    qv::reportingLevel() = m_level;
    qv::stream() = m_stream;
}

Journal* Journal::current() { return open; }

}  // namespace fake
