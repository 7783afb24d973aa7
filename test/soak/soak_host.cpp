// SPDX-License-Identifier: MIT
// Host A of the soak as a program: reads commands, a line each, and answers each with a line.
//
//   plain COUNT ANSWERER    plain oversized packets of both families, every answer awaited
//   all COUNT ANSWERER      the same among packets of all kinds
//   paced COUNT ANSWERER RATE  the same with that many per second to be answered
//   changing COUNT          plain ones, while the MTU of bcm0.20 changes at random
//   forget COUNT ANSWERER [RATE]  plain ones without waiting for the answers
//   spread 0|1              sends from all interfaces of the host, or from one
//   settle MILLISECONDS     reads answers until none has come for so long
//   mtu BYTES               changes the MTU of bcm0.20
//   log 0|1                 does not read the system log, or reads it
//   figures                 NAME=VALUE...
//   kinds                   FAMILY|NAME|SENT|ANSWERED|OUTCOME;...
//
// ANSWERER is daemon, kernel or either. The answer to a command is "ok", or what is asked for.
// What is wrong with an answer is written to standard error and counted as a fault.
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

const char* outcomeName(Outcome outcome) {
    switch (outcome) {
        case Outcome::kAnswered:
            return "answered";
        case Outcome::kKernels:
            return "answered by the kernel";
        case Outcome::kElsewhere:
            return "answered elsewhere";
        case Outcome::kUnanswered:
            break;
    }
    return "never";
}

std::string figures(Host& host, const SystemLog::Counts& log) {
    std::ostringstream line;
    line << "sent=" << host.sent(Outcome::kAnswered)
         << " answered=" << host.answered(Outcome::kAnswered) + host.answered(Outcome::kKernels)
         << " kernels=" << host.sent(Outcome::kKernels)
         << " elsewhere=" << host.sent(Outcome::kElsewhere)
         << " never=" << host.sent(Outcome::kUnanswered) << " faults=" << host.faults()
         << " mtu_changes=" << host.mtuChanges() << " missed=" << host.missedByReceiver()
         << " carries_dropped=" << host.carriesDropped() << " log_lines=" << log.lines
         << " log_lines_lost=" << log.linesLost << " log_received=" << log.received
         << " log_sent=" << log.sent << " log_messages_lost=" << log.messagesLost
         << " log_unanswered=" << log.unanswered << " log_unlogged=" << log.unlogged
         << " log_invalid=" << log.invalid << " log_others=" << log.others
         << " by_daemon=" << host.answeredByDaemon() << " missing=" << host.missing();
    return line.str();
}

std::string kindTable(const Host& host) {
    std::ostringstream line;
    for (size_t i = 0; i < soak::kinds().size(); ++i) {
        const soak::Kind& kind = soak::kinds()[i];
        line << kind.family << '|' << kind.name << '|' << host.figures()[i].sent << '|'
             << host.figures()[i].answered << '|' << outcomeName(kind.outcome) << ';';
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
    if (command == "plain")
        host.sendAndAwait(number, false, answererOf(answerer));
    else if (command == "all")
        host.sendAndAwait(number, true, answererOf(answerer));
    else if (command == "paced")
        host.sendAndAwait(number, true, answererOf(answerer), rate);
    else if (command == "changing")
        host.sendWhileMtuChanges(number);
    else if (command == "forget")
        host.sendAndForget(number, answererOf(answerer), rate);
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
