// Runs the benchmarks, those that send in a network made for the run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>

#include "network.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    try {
        const bench::Network network;
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& e) {
        fprintf(stderr, "pmtud_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
