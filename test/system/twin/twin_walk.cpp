// SPDX-License-Identifier: MIT
// A random walk: random routers, each as two twins, are fed random packets, and whatever their
// hosts receive must be the same.
//
//   twin_walk --daemon PATH [--seed N] [--packets N]
//
// Prints each difference with the router's configuration and the command that repeats it alone.
// The exit status is 1 if there was one.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

#include "play.h"
#include "random_router.h"

namespace {

constexpr size_t kPacketsOfARouter = 1000;
constexpr size_t kDifferencesShown = 10;

struct Options {
    std::string daemon;
    uint64_t seed = 1;
    size_t packets = 100000;
};

struct Sum {
    size_t routers = 0;
    size_t sent = 0;
    size_t told = 0;
    size_t forwarded = 0;
    uint64_t answers = 0;
    size_t differences = 0;
};

Options parse(int argc, char** argv) {
    std::map<std::string, std::string> given;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc) throw std::invalid_argument(argv[i]);
        given[argv[i]] = argv[i + 1];
    }
    Options options;
    for (const auto& [name, value] : given) {
        if (name == "--daemon")
            options.daemon = value;
        else if (name == "--seed")
            options.seed = std::stoull(value);
        else if (name == "--packets")
            options.packets = std::stoull(value);
        else
            throw std::invalid_argument(name);
    }
    if (options.daemon.empty()) throw std::invalid_argument("--daemon is missing");
    return options;
}

void report(const twin::RandomRouter& router, const twin::Comparison& result,
            const Options& options, uint64_t seed, size_t packets) {
    std::cout << "DIFFERENT: twin_walk --seed " << seed << " --packets " << packets << " --daemon "
              << options.daemon << '\n';
    std::cout << router.lines();
    size_t shown = 0;
    for (const std::string& line : result.differences) {
        if (++shown > kDifferencesShown) break;
        std::cout << "  " << line << '\n';
    }
    std::cout << "  " << result.differences.size() << " lines in all" << std::endl;
}

void walkOne(const twin::Run& run, const Options& options, uint64_t seed, size_t packets,
             Sum& sum) {
    twin::RandomRouter router(seed);
    twin::Comparison result;
    try {
        twin::Twins twins(run, router.mtus());
        play(twins, router.lines());
        router.fill(twins, packets);
        result = twins.compare(false);
        if (!router.mayDropAnswers() && result.withdrawn != result.answers)
            result.differences.push_back("withdrawn " + std::to_string(result.withdrawn) +
                                         ", answered " + std::to_string(result.answers));
    } catch (const std::exception& error) {
        result.differences.emplace_back(error.what());
    }
    ++sum.routers;
    sum.sent += result.sent;
    sum.told += result.told;
    sum.forwarded += result.forwarded;
    sum.answers += result.answers;
    sum.differences += result.differences.size();
    if (!result.differences.empty()) report(router, result, options, seed, packets);
}

int walk(const Options& options) {
    const twin::Run run = twin::prepareRun(options.daemon);
    Sum sum;
    for (size_t done = 0; done < options.packets; done += kPacketsOfARouter)
        walkOne(run, options, options.seed + sum.routers,
                std::min(kPacketsOfARouter, options.packets - done), sum);
    std::cout << "seed " << options.seed << ": " << sum.routers << " routers, " << sum.sent
              << " packets to each twin, " << sum.told << " messages, " << sum.answers
              << " of them the daemon's, " << sum.forwarded << " other frames, " << sum.differences
              << " differences" << std::endl;
    return sum.differences == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr char kUsage[] = "usage: twin_walk --daemon PATH [--seed N] [--packets N]\n";
    if (argc == 2 && std::string(argv[1]) == "--help") {
        std::cout << kUsage;
        return EXIT_SUCCESS;
    }
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << kUsage << error.what() << '\n';
        return 2;
    }
    try {
        return walk(options);
    } catch (const std::exception& error) {
        std::cerr << "twin_walk: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
