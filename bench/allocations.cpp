// SPDX-License-Identifier: MIT
// Counts a reply's allocations, and shows which of our functions made each one.
#include "allocations.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>

#include "reply.h"

namespace {

bool counting = false;
int counted = 0;
constexpr int kDepth = 16;
std::array<std::array<void*, kDepth>, 64> callers;

void* allocate(size_t size) {
    if (counting && counted < static_cast<int>(callers.size())) {
        auto& stack = callers[static_cast<size_t>(counted++)];
        stack.fill(nullptr);
        backtrace(stack.data(), kDepth);
    }
    void* const memory = malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

/// The innermost address on the stack that is in this program, not in a library.
std::string nearestCaller(const std::array<void*, kDepth>& stack) {
    Dl_info self;
    dladdr(reinterpret_cast<void*>(&bench::printAllocations), &self);
    // The first two are allocate and operator new.
    for (size_t i = 2; i < stack.size() && stack[i] != nullptr; ++i) {
        Dl_info info;
        if (dladdr(stack[i], &info) == 0 || info.dli_fbase != self.dli_fbase) continue;
        std::array<char, 32> offset;
        snprintf(offset.data(), offset.size(), "%#tx",
                 static_cast<char*>(stack[i]) - static_cast<char*>(info.dli_fbase) - 1);
        return offset.data();
    }
    return "?";
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
// Not inline: GCC 12 at -O1 would mistake free for the counterpart of the standard operator new.
[[gnu::noinline]] void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

namespace bench {

void printAllocations(int family) {
    // The first replies allocate the thread's line buffer, and backtrace loads what it needs.
    std::array<void*, 1> warm;
    backtrace(warm.data(), 1);
    reply(family, 10);
    counting = true;
    reply(family, 1);
    counting = false;
    std::map<std::string, int> byCaller;
    for (int i = 0; i < counted; ++i) ++byCaller[nearestCaller(callers[static_cast<size_t>(i)])];
    for (const auto& [caller, count] : byCaller) printf("%d %s\n", count, caller.c_str());
    counted = 0;
}

}  // namespace bench
