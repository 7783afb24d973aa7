// SPDX-License-Identifier: MIT
// Measures what a suppressed log statement costs, compared with an empty loop.
#include <benchmark/benchmark.h>

#include "QVLog.h"

namespace {

void emptyLoop(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) benchmark::DoNotOptimize(value);
}
BENCHMARK(emptyLoop);

void suppressedStatement(benchmark::State& state) {
    int value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        QV_LOG(DEBUG, 1) << "never written " << value;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(suppressedStatement);

}  // namespace
