// SPDX-License-Identifier: MIT
// The test program's own operator new: counts what is alive, and fails when it is told to.
#include "allocations.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {
long blocks = 0;
bool nextFails = false;
}  // namespace

long allocations::alive() { return blocks; }

void allocations::failNext() { nextFails = true; }

void* operator new(std::size_t size) {
    if (std::exchange(nextFails, false)) throw std::bad_alloc();
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    ++blocks;
    return block;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    --blocks;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
