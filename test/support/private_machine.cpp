// SPDX-License-Identifier: MIT
// A private machine for a test's process, and its commands and network namespaces.
#include "private_machine.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "descriptor.h"

namespace machine {

using pmtud_linux::Descriptor;

namespace {

void makeDevice(const char* path, unsigned int minor) {
    check(mknod(path, S_IFCHR | 0666, makedev(1, minor)) == 0, path);
}

Descriptor networkAt(const std::string& path) {
    Descriptor network(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    check(network.valid(), path);
    return network;
}

}  // namespace

void isolate() {
    check(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "this test needs root: unshare");
    check(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    check(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
    check(mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0, "mount /dev");
    makeDevice("/dev/null", 3);
    makeDevice("/dev/zero", 5);
    makeDevice("/dev/urandom", 9);
}

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

void inNetwork(const std::string& name, const std::function<void()>& action) {
    const Descriptor home = networkAt("/proc/thread-self/ns/net");
    const Descriptor there = networkAt("/run/netns/" + name);
    check(setns(there.get(), CLONE_NEWNET) == 0, "setns");
    const auto goHome = [](const Descriptor* back) { setns(back->get(), CLONE_NEWNET); };
    const std::unique_ptr<const Descriptor, decltype(goHome)> guard(&home, goHome);
    action();
}

}  // namespace machine
