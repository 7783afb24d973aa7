// SPDX-License-Identifier: MIT
// Fuzzes the dispatcher of the Linux platform: everything that it gets from the kernel and
// libnftables comes from the input.
#include "dispatcher.h"

#include <memory>
#include <system_error>

#include "dispatcher_world.h"

using fuzz::require;
using fuzz::world;
using pmtud_linux::Priority;

namespace {

/// What the callback throws.
struct Stop {};

int callback(const st_pktd_shm_queue_entry_data_t* record, uint8_t* frame, int size) {
    const int choice = world->handOver(*record, frame, static_cast<size_t>(size));
    if (choice == 0xFF) throw Stop();
    constexpr std::array<int, 8> kVerdicts = {7, 7, 7, 8, 9, 1, 0, -1};
    return kVerdicts[static_cast<size_t>(choice / 4 % 8)];
}

}  // namespace

// In place of std::chrono::steady_clock::now() and pmtud_linux::say().
std::chrono::steady_clock::time_point scriptedNow() asm(
    "__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
bool scriptedSay(Priority priority, const std::string& line) asm(
    "__wrap__ZN11pmtud_linux3sayENS_8PriorityERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEE");

std::chrono::steady_clock::time_point scriptedNow() {
    return std::chrono::steady_clock::time_point(world->now);
}

bool scriptedSay(Priority priority, const std::string& line) {
    world->takeLine(priority, line);
    return !world->logIsDown;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::World made{fuzz::Input(data, size)};
    world = &made;
    made.callsUntilFailure = made.input.byte() % 64;
    {
        const auto dispatcher = std::make_unique<pmtud_linux::Dispatcher>();
        const int attached = dispatcher->attach();
        require(attached <= 0, "attaching answers 0 or a negative error");
        require(made.startLines == (attached == 0 ? 0 : 1), "a start that failed is explained");
        if (attached == 0) {
            made.isRunning = true;
            try {
                dispatcher->run(callback);
            } catch (const std::system_error&) {
            } catch (const Stop&) {
            }
            require(made.group.isOpen && made.rules, "group and rules are there while it runs");
            dispatcher->detach();
        }
        require(!made.group.isOpen && !made.rulesContext.isOpen && !made.rules,
                "group and rules are given up");
        require(!made.checkContext.isOpen, "nothing is left of a check");
    }
    require(!made.linkSocket.isOpen && !made.counter.isOpen && made.descriptors.empty(),
            "every socket is closed");
    world = nullptr;
    return 0;
}
