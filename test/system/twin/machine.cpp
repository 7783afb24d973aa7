// SPDX-License-Identifier: MIT
// Private mount and network namespaces, and commands that run in them.
#include "machine.h"

#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

using pmtud_linux::Descriptor;

namespace twin {

namespace {

constexpr int kPatience = 20000;  // milliseconds

void check(bool succeeded, const std::string& what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

void makeDevice(const char* path, unsigned int minor) {
    check(mknod(path, S_IFCHR | 0666, makedev(1, minor)) == 0, path);
}

Descriptor ownNetwork() {
    Descriptor network(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    check(network.valid(), "network namespace");
    return network;
}

// What the command prints, or an exception with it.
std::string output(const std::string& command) {
    FILE* const pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    check(pipe != nullptr, "popen");
    std::string text;
    std::array<char, 4096> piece;
    for (size_t size = 0; (size = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;)
        text.append(piece.data(), size);
    if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command + "\n" + text);
    return text;
}

std::string fed(const std::string& command, const std::string& input) {
    return command + " <<'END_OF_INPUT'\n" + input + "\nEND_OF_INPUT";
}

// A link takes packets once the kernel has seen its carrier and given it a queue.
bool linksAreReady() {
    std::istringstream lines(output("ip -o link show up"));
    for (std::string line; std::getline(lines, line);) {
        const auto has = [&](const char* word) { return line.find(word) != std::string::npos; };
        const bool hasQueue = has("LOOPBACK") || has("qdisc noqueue");
        if (!hasQueue || has("NO-CARRIER") || has("state DOWN")) return false;
    }
    return true;
}

}  // namespace

void isolate() {
    check(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "the twins need root: unshare");
    check(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    check(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
    check(mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0, "mount /dev");
    makeDevice("/dev/null", 3);
    makeDevice("/dev/zero", 5);
    makeDevice("/dev/urandom", 9);
    check(mkdir("/run/netns", 0755) == 0, "/run/netns");
    // So that the system log of a whole batch waits until it is read.
    std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 100000;
}

Namespace::Namespace(std::string name) : m_name(std::move(name)) {
    const std::string path = "/run/netns/" + m_name;
    const Descriptor home = ownNetwork();
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    check(file.valid(), path);
    check(unshare(CLONE_NEWNET) == 0, "unshare");
    m_descriptor = ownNetwork();
    const bool mounted =
        mount("/proc/thread-self/ns/net", path.c_str(), "none", MS_BIND, nullptr) == 0;
    check(setns(home.get(), CLONE_NEWNET) == 0, "setns");
    check(mounted, path);
    ip("link set lo up");
}

Namespace::~Namespace() {
    const std::string path = "/run/netns/" + m_name;
    umount2(path.c_str(), MNT_DETACH);
    unlink(path.c_str());
}

void Namespace::run(const std::function<void()>& action) const {
    const Descriptor home = ownNetwork();
    check(setns(m_descriptor.get(), CLONE_NEWNET) == 0, "setns");
    const auto goHome = [](const Descriptor* back) { setns(back->get(), CLONE_NEWNET); };
    const std::unique_ptr<const Descriptor, decltype(goHome)> guard(&home, goHome);
    action();
}

std::string Namespace::shell(const std::string& command) const {
    std::string printed;
    run([&] { printed = output(command); });
    return printed;
}

void Namespace::ip(const std::string& batch) const { shell(fed("ip -batch -", batch)); }

void Namespace::nft(const std::string& rules) const { shell(fed("nft -f -", rules)); }

void Namespace::sysctl(const std::string& name, const std::string& value) const {
    run([&] {
        std::ofstream file("/proc/sys/net/" + name);
        file << value << std::flush;
        if (!file) throw std::runtime_error("cannot set " + name + " to " + value);
    });
}

void Namespace::awaitLinks() const {
    run([] {
        const Descriptor events(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        sockaddr_nl links{};
        links.nl_family = AF_NETLINK;
        links.nl_groups = RTMGRP_LINK;
        check(bind(events.get(), reinterpret_cast<const sockaddr*>(&links), sizeof links) == 0,
              "link events");
        while (!linksAreReady()) {
            pollfd readable{events.get(), POLLIN, 0};
            if (poll(&readable, 1, kPatience) != 1)
                throw std::runtime_error("timed out waiting for a link:\n" +
                                         output("ip -o link show up"));
            std::array<char, 65536> event;
            while (recv(events.get(), event.data(), event.size(), MSG_DONTWAIT) >= 0) continue;
        }
    });
}

bool succeeds(const std::string& command) {
    return std::system((command + " >/run/command 2>&1").c_str()) == 0;
}

}  // namespace twin
