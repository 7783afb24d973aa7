// SPDX-License-Identifier: MIT
// Runs the benchmarks, or some replies for a tool to observe, in a network built for the run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "allocations.h"
#include "network.h"
#include "reply.h"

namespace {

int run(int count, char** words) {
    const std::string_view mode = count == 3 ? words[1] : "";
    if (mode == "--replies") {
        const bench::Network network;
        bench::reply(atoi(words[2]), 1000);
        return 0;
    }
    if (mode == "--allocations") {
        const bench::Network network;
        bench::printAllocations(atoi(words[2]));
        return 0;
    }
    benchmark::Initialize(&count, words);
    if (benchmark::ReportUnrecognizedArguments(count, words)) return 2;
    const bench::Network network;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

}  // namespace

// pmtud_bench [Google Benchmark's options]
// pmtud_bench --replies 4|6        answers 1,000 packets of the family
// pmtud_bench --allocations 4|6    shows what one reply of the family allocates
int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        fprintf(stderr, "pmtud_bench: %s\n", e.what());
        return 1;
    }
}
