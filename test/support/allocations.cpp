// SPDX-License-Identifier: MIT
// The test program's own operator new: counts what the daemon holds, and fails on request.
#include "allocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local bool everyLaterFails = false;
thread_local bool hasFailed = false;
thread_local int untilFailure = 0;

std::atomic<long> blocks = 0;
std::atomic<long> bytes = 0;
std::atomic<long> allBlocks = 0;

/// Precedes every block, as large as the strictest alignment requires.
struct alignas(std::max_align_t) Mark {
    size_t counted;
};

void failIfDue() {
    const bool isDue = untilFailure == 0 ? everyLaterFails && hasFailed : --untilFailure == 0;
    if (!isDue) return;
    hasFailed = true;
    if (allocations::onFailure != nullptr) allocations::onFailure.load()();
    throw std::bad_alloc();
}

}  // namespace

namespace allocations {

Counted::Counted(int nth, bool onwards) {
    untilFailure = nth;
    everyLaterFails = onwards;
    hasFailed = false;
    detail::counting = true;
}

Counted::~Counted() {
    detail::counting = false;
    untilFailure = 0;
}

bool Counted::failed() const { return hasFailed; }

long alive() { return blocks; }
long bytesAlive() { return bytes; }
long taken() { return allBlocks; }

}  // namespace allocations

void* operator new(size_t size) {
    const bool counted = allocations::detail::counting;
    if (counted) failIfDue();
    void* const block = malloc(sizeof(Mark) + size);
    if (block == nullptr) throw std::bad_alloc();
    Mark* const mark = new (block) Mark{counted ? size + 1 : 0};
    if (counted) {
        ++blocks;
        ++allBlocks;
        bytes += static_cast<long>(size);
    }
    return mark + 1;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    Mark* const mark = static_cast<Mark*>(block) - 1;
    if (mark->counted != 0) {
        --blocks;
        bytes -= static_cast<long>(mark->counted - 1);
    }
    free(mark);
}

void operator delete(void* block, size_t) noexcept { operator delete(block); }
