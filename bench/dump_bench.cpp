// SPDX-License-Identifier: MIT
// Measures what each header dump costs.
#include <benchmark/benchmark.h>

#include "dumps.h"
#include "frames.h"

namespace {

void ethernetDump(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(ethDump(EthVlanHeader(bench::kIpv4Frame.data())));
    }
}
BENCHMARK(ethernetDump);

void ipv4HeaderDump(benchmark::State& state) {
    const Ipv4Header header(EthVlanHeader(bench::kIpv4Frame.data()).payload());
    for (auto _ : state) benchmark::DoNotOptimize(ipv4Dump(header));
}
BENCHMARK(ipv4HeaderDump);

void ipv6PacketDump(benchmark::State& state) {
    const Ipv6Header header(EthVlanHeader(bench::kIpv6Frame.data()).payload());
    for (auto _ : state) benchmark::DoNotOptimize(ipv6Dump(header));
}
BENCHMARK(ipv6PacketDump);

}  // namespace
