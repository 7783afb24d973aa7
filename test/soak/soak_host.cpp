// SPDX-License-Identifier: MIT
// Host A of the soak as a program: reads one command per line, and answers each with a line.
//
//   plain COUNT ANSWERER          plain oversized packets of both families, every answer awaited
//   all COUNT ANSWERER            the same among packets of all kinds
//   paced COUNT ANSWERER RATE     the same with that many per second to be answered
//   forget COUNT ANSWERER [RATE]  plain ones without waiting for the answers
//   changing COUNT                plain ones, while the MTU of bcm0.20 changes at random
//   spread 0|1                    sends from one interface of the host, or from all
//   settle MILLISECONDS           reads answers until none has come for that long
//   mtu BYTES                     changes the MTU of bcm0.20
//   log 0|1                       does not read the system log, or reads it
//   figures                       NAME=VALUE...
//   kinds                         FAMILY|NAME|SENT|ANSWERED|OUTCOME;...
//
// ANSWERER is daemon, kernel or either. The answer to a command is "ok", or what was requested.
// Wrong answers are described on standard error and counted as faults.
#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "host.h"
#include "system_log.h"

namespace {

using soak::Host;
using soak::Outcome;
using soak::SystemLog;

soak::Answerer answererOf(const std::string& name) {
    if (name == "daemon") return soak::Answerer::kDaemon;
    if (name == "kernel") return soak::Answerer::kKernel;
    if (name == "either") return soak::Answerer::kEither;
    throw std::invalid_argument("no such answerer: " + name);
}

const char* textOf(Outcome outcome) {
    if (outcome == Outcome::kAnswered) return "answered";
    if (outcome == Outcome::kKernels) return "answered by the kernel";
    return outcome == Outcome::kElsewhere ? "answered elsewhere" : "never";
}

std::string figures(Host& host, const SystemLog::Counts& log) {
    const soak::Figures answered = host.figuresOf(Outcome::kAnswered);
    const soak::Figures kernels = host.figuresOf(Outcome::kKernels);
    std::ostringstream line;
    line << "sent=" << answered.sent << " answered=" << answered.answered + kernels.answered
         << " kernels=" << kernels.sent << " elsewhere=" << host.figuresOf(Outcome::kElsewhere).sent
         << " never=" << host.figuresOf(Outcome::kUnanswered).sent << " faults=" << host.faults()
         << " mtu_changes=" << host.mtuChanges() << " missed=" << host.missedByReceiver()
         << " carries_dropped=" << host.carriesDropped() << " log_lines=" << log.lines
         << " log_lines_lost=" << log.linesLost << " log_messages_lost=" << log.messagesLost
         << " log_unanswered=" << log.unanswered << " log_unlogged=" << log.unlogged
         << " by_daemon=" << host.answeredByDaemon() << " missing=" << host.missing();
    return line.str();
}

std::string kindTable(const Host& host) {
    std::ostringstream line;
    for (size_t i = 0; i < soak::kinds().size(); ++i) {
        const soak::Kind& kind = soak::kinds()[i];
        const soak::Figures& figures = host.figures()[i];
        line << kind.family << '|' << kind.name << '|' << figures.sent << '|' << figures.answered
             << '|' << textOf(kind.outcome) << ';';
    }
    return line.str();
}

std::string run(const std::string& line, Host& host, SystemLog& log) {
    std::istringstream words(line);
    std::string command;
    std::string answerer;
    uint64_t number = 0;
    uint64_t rate = 0;
    words >> command >> number >> answerer >> rate;
    if (command == "figures") return figures(host, log.counts());
    if (command == "kinds") return kindTable(host);
    if (command == "plain" || command == "all" || command == "paced" || command == "forget")
        host.send({.count = number,
                   .answerer = answererOf(answerer),
                   .rate = rate,
                   .allKinds = command == "all" || command == "paced",
                   .isAwaited = command != "forget"});
    else if (command == "changing")
        host.sendWhileMtuChanges(number);
    else if (command == "spread")
        host.setSpread(number != 0);
    else if (command == "settle")
        host.settle(std::chrono::milliseconds(number));
    else if (command == "log")
        log.setReading(number != 0);
    else if (command == "mtu")
        host.setMtu(static_cast<uint32_t>(number));
    else
        throw std::invalid_argument("no such command: " + line);
    return "ok";
}

void serve(uint64_t seed, const char* interface, const char* switchNamespace) {
    SystemLog log;
    Host host(seed, interface, switchNamespace);
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) std::cout << run(line, host, log) << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: soak_host SEED INTERFACE SWITCH_NAMESPACE\n"
                     "Runs in the network namespace of host A, on the lab's network; reads\n"
                     "commands from standard input.\n";
        return argc == 2 && std::string(argv[1]) == "--help" ? EXIT_SUCCESS : 2;
    }
    try {
        serve(std::stoull(argv[1]), argv[2], argv[3]);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "soak_host: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
