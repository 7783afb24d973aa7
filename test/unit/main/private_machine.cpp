// SPDX-License-Identifier: MIT
// Namespaces of the test process's own, so that a daemon under test finds a machine to itself.
#include "private_machine.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

namespace {

void check(bool succeeded, const char* what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::trunc);
    out << content << std::flush;
    check(out.good(), path.c_str());
}

}  // namespace

void enterPrivateMachine() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    const int userNamespace = user == 0 ? 0 : CLONE_NEWUSER;
    check(unshare(userNamespace | CLONE_NEWNS | CLONE_NEWNET) == 0, "unshare");
    if (userNamespace != 0) {
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
    check(mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") == 0, "mount /var/run");
}

void makeRunReadOnly() {
    check(mount("tmpfs", "/var/run", "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0,
          "remount /var/run");
}

namespace pid_file {

bool exists() { return access(kPath, F_OK) == 0; }

std::string content() {
    std::ifstream in(kPath);
    check(in.good(), kPath);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write(const std::string& content) { writeFile(kPath, content); }

mode_t mode() {
    struct stat status {};
    check(stat(kPath, &status) == 0, kPath);
    return status.st_mode & 07777;
}

bool isFreeFor(int lock) {
    const int fd = open(kPath, O_RDONLY | O_CLOEXEC);
    check(fd != -1, kPath);
    const bool isFree = flock(fd, lock | LOCK_NB) == 0;
    check(isFree || errno == EWOULDBLOCK, "flock");
    close(fd);
    return isFree;
}

}  // namespace pid_file
