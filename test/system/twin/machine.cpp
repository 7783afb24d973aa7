// SPDX-License-Identifier: MIT
// What runs on the twins' machine: network namespaces, the daemon, and what it logs.
#include "machine.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "private_machine.h"

using machine::check;
using machine::output;
using pmtud_linux::Descriptor;

namespace twin {

namespace {

// A link accepts packets once the kernel has seen its carrier and given it a queue.
constexpr char kAwaitLinks[] = R"(timeout 20 sh -c '
    until ip -o link show up |
        awk "/NO-CARRIER|state DOWN/ || !/LOOPBACK|qdisc noqueue/ { exit 1 }"
    do sleep 0.02; done
' || { ip -o link show up; false; })";

}  // namespace

Namespace::Namespace(std::string name) : m_name(std::move(name)) {
    output("ip netns add " + m_name);
    ip("link set lo up");
}

Namespace::~Namespace() {
    const std::string path = "/run/netns/" + m_name;
    umount2(path.c_str(), MNT_DETACH);
    unlink(path.c_str());
}

void Namespace::run(const std::function<void()>& action) const {
    machine::inNetwork(m_name, action);
}

std::string Namespace::shell(const std::string& command) const {
    std::string printed;
    run([&] { printed = output(command); });
    return printed;
}

void Namespace::ip(const std::string& batch) const {
    shell("ip -batch - <<'END_OF_INPUT'\n" + batch + "\nEND_OF_INPUT");
}

void Namespace::nft(const std::string& rules) const {
    shell("nft -f - <<'END_OF_INPUT'\n" + rules + "\nEND_OF_INPUT");
}

void Namespace::awaitLinks() const { shell(kAwaitLinks); }

Mailbox::Mailbox(std::string path)
    : m_path(std::move(path)), m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          m_path);
}

Mailbox::~Mailbox() { unlink(m_path.c_str()); }

std::vector<std::string> Mailbox::take() const {
    std::vector<std::string> messages;
    std::array<char, 8192> buffer;
    for (;;) {
        const ssize_t length = recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0) return messages;
        messages.emplace_back(buffer.data(), static_cast<size_t>(length));
    }
}

void Mailbox::await(const std::string& message) const {
    for (;;) {
        pollfd readable{m_socket.get(), POLLIN, 0};
        if (poll(&readable, 1, kPatience) != 1)
            throw std::runtime_error("timed out waiting for the message " + message);
        const std::vector<std::string> messages = take();
        if (std::find(messages.begin(), messages.end(), message) != messages.end()) return;
    }
}

Daemon::Daemon(const std::string& program, const Namespace& router, int processor) {
    constexpr char kManager[] = "/run/service-manager";
    const Mailbox manager(kManager);
    const std::string notifySocket = std::string("NOTIFY_SOCKET=") + kManager;
    router.run([&] {
        m_pid = fork();
        check(m_pid >= 0, "fork");
        if (m_pid > 0) return;
        execlp("setpriv", "setpriv", "--pdeathsig", "KILL", "taskset", "--cpu-list",
               std::to_string(processor).c_str(), "env", notifySocket.c_str(), program.c_str(),
               static_cast<char*>(nullptr));
        perror("setpriv");
        _exit(127);
    });
    manager.await("READY=1");
}

Daemon::~Daemon() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool Daemon::isRunning() const {
    siginfo_t ended{};
    check(waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0,
          "waitid");
    return ended.si_pid == 0;
}

}  // namespace twin
