// SPDX-License-Identifier: MIT
// The daemon on the scripted platform, as a child process of the test.
#include "daemon_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <sstream>
#include <system_error>
#include <utility>

namespace {

// Out of the way of what the test itself opens: dup2 onto itself would leave it close-on-exec.
constexpr int kScriptDescriptor = 100;
constexpr int64_t kPatienceMilliseconds = 30000;

void check(bool succeeded, const char* what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

int64_t nowMilliseconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

int memoryFile(const std::string& content) {
    const int fd = memfd_create("pmtud-test", MFD_CLOEXEC);
    check(fd != -1, "memfd_create");
    const auto written = write(fd, content.data(), content.size());
    check(written == static_cast<ssize_t>(content.size()), "write");
    return fd;
}

/// The program and its arguments, preceded by the emulator that it needs on this machine, if any.
std::vector<std::string> commandLine(const std::vector<std::string>& arguments) {
    std::vector<std::string> command;
    std::istringstream emulator(PMTUD_TEST_EMULATOR);
    for (std::string word; emulator >> word;) command.push_back(word);
    command.emplace_back(PMTUD_TEST_DAEMON);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

/// Does not return. What the daemon may change or keep is set to a known state before.
void becomeDaemon(const Start& start, int script, int log, int standardOutput) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) ::signal(number, SIG_DFL);
    ::umask(start.umask);
    dup2(script, kScriptDescriptor);
    dup2(standardOutput, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    setenv("PMTUD_SCRIPT", ("/proc/self/fd/" + std::to_string(kScriptDescriptor)).c_str(), 1);
    for (const auto& [name, value] : start.environment) setenv(name.c_str(), value.c_str(), 1);

    std::vector<std::string> command = commandLine(start.arguments);
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

}  // namespace

Start play(const std::string& statements) {
    return {.script = "clock 14:03:07.245\n" + statements + "end\n"};
}

std::ostream& operator<<(std::ostream& os, const Ending& ending) {
    return os << ending.how << " after\n" << ending.log;
}

DaemonProcess::DaemonProcess(const Start& start) {
    const int script = memoryFile(start.script);
    m_standardOutput = memoryFile("");
    std::array<int, 2> pipeEnds{};
    check(pipe2(pipeEnds.data(), O_CLOEXEC) == 0, "pipe2");
    m_log = pipeEnds[0];
    m_pid = fork();
    check(m_pid != -1, "fork");
    if (m_pid == 0) becomeDaemon(start, script, pipeEnds[1], m_standardOutput);
    close(pipeEnds[1]);
    close(script);
}

DaemonProcess::~DaemonProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_log);
    close(m_standardOutput);
}

bool DaemonProcess::read(int64_t deadline) {
    pollfd readable{m_log, POLLIN, 0};
    const int64_t left = std::max<int64_t>(deadline - nowMilliseconds(), 0);
    if (poll(&readable, 1, static_cast<int>(left)) != 1) return false;
    std::array<char, 4096> buffer;
    const auto count = ::read(m_log, buffer.data(), buffer.size());
    if (count <= 0) return false;
    m_unread.append(buffer.data(), static_cast<size_t>(count));
    return true;
}

std::string DaemonProcess::logUntil(const std::string& line) {
    const int64_t deadline = nowMilliseconds() + kPatienceMilliseconds;
    const std::string wanted = '\n' + line + '\n';
    size_t found = 0;
    while ((found = ('\n' + m_unread).find(wanted)) == std::string::npos) {
        if (read(deadline)) continue;
        ADD_FAILURE() << "the line '" << line << "' has not come; what has:\n" << m_unread;
        return std::exchange(m_unread, {});
    }
    const size_t end = found + line.size() + 1;
    std::string log = m_unread.substr(0, end);
    m_unread.erase(0, end);
    return log;
}

void DaemonProcess::signal(int number) const { check(kill(m_pid, number) == 0, "kill"); }

Ending DaemonProcess::ending() {
    const int64_t deadline = nowMilliseconds() + kPatienceMilliseconds;
    while (read(deadline)) {
    }
    if (nowMilliseconds() >= deadline) {
        ADD_FAILURE() << "still running";
        kill(m_pid, SIGKILL);
    }
    int status = 0;
    check(waitpid(m_pid, &status, 0) == m_pid, "waitpid");
    m_pid = -1;
    const std::string how = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                              : "signal " + std::to_string(WTERMSIG(status));
    return {how, std::exchange(m_unread, {})};
}

bool DaemonProcess::isRunning() const {
    siginfo_t ended{};
    check(waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0,
          "waitid");
    return ended.si_pid == 0;
}

std::string DaemonProcess::standardOutput() const {
    std::array<char, 4096> buffer;
    const auto count = pread(m_standardOutput, buffer.data(), buffer.size(), 0);
    check(count >= 0, "pread");
    return {buffer.data(), static_cast<size_t>(count)};
}
