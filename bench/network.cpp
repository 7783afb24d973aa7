// SPDX-License-Identifier: MIT
// The network that replies are sent into: bcm0.10 here, its peer in another namespace.
#include "network.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bench {

namespace {

void enterNewNetwork() {
    if (unshare(CLONE_NEWNET) == 0) return;
    throw std::system_error(errno, std::generic_category(),
                            "no network namespace: run as root, or with CAP_SYS_ADMIN");
}

void run(const std::string& command) {
    if (system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

/// Starts a process that holds a network namespace open; it dies with this one.
pid_t startPeer() {
    int ready[2];
    if (pipe(ready) != 0) throw std::runtime_error("cannot create a pipe");
    const pid_t peer = fork();
    if (peer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (unshare(CLONE_NEWNET) != 0) _exit(1);
        if (write(ready[1], "", 1) != 1) _exit(1);
        pause();
        _exit(0);
    }
    char byte;
    close(ready[1]);
    const bool isReady = peer > 0 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!isReady) throw std::runtime_error("the peer's namespace could not be created");
    return peer;
}

}  // namespace

Network::Network() {
    enterNewNetwork();
    m_peer = startPeer();
    const std::string pid = std::to_string(m_peer);
    const std::string inPeer = "nsenter --net=/proc/" + pid + "/ns/net ";
    run("ip link add bcm0.10 address 02:00:00:00:10:01 type veth peer name eth0 netns " + pid +
        " address 02:00:00:00:10:02");
    run("ip addr add 10.0.10.1/24 dev bcm0.10");
    run("ip addr add fd00:10::1/64 dev bcm0.10 nodad");
    run(inPeer + "ip addr add 10.0.10.2/24 dev eth0");
    run(inPeer + "ip addr add fd00:10::2/64 dev eth0 nodad");
    run("ip link set bcm0.10 up");
    run(inPeer + "ip link set eth0 up");
    // Permanent neighbours, so that no resolution distorts the figures.
    run("ip neigh replace 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10 nud permanent");
    run("ip neigh replace fd00:10::2 lladdr 02:00:00:00:10:02 dev bcm0.10 nud permanent");
}

Network::~Network() {
    kill(m_peer, SIGKILL);
    waitpid(m_peer, nullptr, 0);
}

}  // namespace bench
