// SPDX-License-Identifier: MIT
// The run of a script: what is in store for the next call, and the log of the calls.
#include "scripted_play.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string_view>

#include "qv_exception.h"

namespace scripted {
namespace {

[[noreturn]] void endUnplayed(const std::string& fault) {
    fprintf(stderr, "pmtud-scripted: %s\n", fault.c_str());
    fflush(stderr);
    _exit(2);
}

Script readScriptFile() {
    const char* const name = getenv("PMTUD_SCRIPT");
    if (name == nullptr) return {};
    std::ifstream in(name);
    if (!in) endUnplayed(std::string("cannot read ") + name);
    try {
        return readScript(in);
    } catch (const BadLine& bad) {
        endUnplayed(std::string(name) + ":" + bad.what());
    }
}

int countCall(const std::string& call) {
    static std::mutex mutex;
    // Never destroyed: the receive thread may still call when the process exits.
    static auto& counts = *new std::map<std::string, int>;
    const std::lock_guard lock(mutex);
    return ++counts[call];
}

}  // namespace

const Script& script() {
    static const Script& only = *new Script(readScriptFile());
    return only;
}

void log(const std::string& line) {
    // A bad script ends the process before its first line.
    script();
    const std::string text = line + '\n';
    const auto written = write(STDERR_FILENO, text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) endUnplayed("cannot write the log");
}

std::optional<int> incidentOf(const char* call) {
    const auto found = script().incidents.find({call, countCall(call)});
    if (found == script().incidents.end()) return std::nullopt;
    const Incident& incident = found->second;
    switch (incident.kind) {
        case Incident::Kind::kThrowQv:
            throw qv::exception(incident.text);
        case Incident::Kind::kThrowStd:
            throw std::runtime_error(incident.text);
        case Incident::Kind::kThrowInt:
            throw incident.number;
        case Incident::Kind::kFail:
            break;
    }
    return incident.number;
}

int answerOf(const char* call) {
    const auto found = script().answers.find(call);
    return found == script().answers.end() ? 0 : found->second;
}

}  // namespace scripted

std::optional<fake::Failure> fake::made(const char* call, const std::string& entry) {
    static std::once_flag installed;
    std::call_once(installed, scripted::installAnswers);
    scripted::log(entry);
    scripted::incidentOf(call);
    if (std::string_view(call) == "updateTZ") scripted::countAllocationsFromNow();
    const auto answer = scripted::script().answers.find(call);
    if (answer == scripted::script().answers.end()) return std::nullopt;
    return fake::Failure{answer->second};
}
