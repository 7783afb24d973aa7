// SPDX-License-Identifier: MIT
// The test program's own operator new: fails once where it is told to, and counts what is held.
#include "allocations.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local bool counting = false;
thread_local bool failing = false;
thread_local bool hasFailed = false;
thread_local int untilFailure = 0;

std::atomic<long> blocks = 0;
std::atomic<void (*)()> failureHook = nullptr;

/// Before every block, as large as the strictest alignment asks.
struct alignas(std::max_align_t) Mark {
    bool counted;
};

bool isDue(bool onwards) {
    if (untilFailure == 0) return onwards && hasFailed;
    return --untilFailure == 0;
}

void failIfDue() {
    if (!isDue(failing)) return;
    hasFailed = true;
    if (failureHook != nullptr) failureHook.load()();
    throw std::bad_alloc();
}

}  // namespace

namespace allocations {

Counted::Counted(int nth, bool onwards) {
    untilFailure = nth;
    failing = onwards;
    hasFailed = false;
    counting = true;
}

Counted::~Counted() {
    counting = false;
    untilFailure = 0;
}

bool Counted::failed() const { return hasFailed; }

Paused::Paused() : m_counting(counting) { counting = false; }

Paused::~Paused() { counting = m_counting; }

long alive() { return blocks; }

void onFailure(void (*hook)()) { failureHook = hook; }

}  // namespace allocations

void* operator new(std::size_t size) {
    if (counting) failIfDue();
    void* const block = std::malloc(sizeof(Mark) + size);
    if (block == nullptr) throw std::bad_alloc();
    Mark* const mark = new (block) Mark{counting};
    if (counting) ++blocks;
    return mark + 1;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    Mark* const mark = static_cast<Mark*>(block) - 1;
    if (mark->counted) --blocks;
    std::free(mark);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
