// SPDX-License-Identifier: MIT
// System calls that a test must see or fail: the network's.
#include "fake_syscalls.h"

#include <sys/socket.h>

#include <cstring>
#include <sstream>

namespace fake {

namespace {
Syscalls current;
}

Syscalls& syscalls() { return current; }

void resetSyscalls() { current = Syscalls(); }

}  // namespace fake

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
    std::ostringstream os;
    os << "socket(" << domain << ", " << type << ", " << protocol << ")";
    fake::syscalls().calls.push_back(os.str());
    return fake::syscalls().socket();
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    std::ostringstream os;
    os << "setsockopt(" << fd << ", " << level << ", " << option << ", [";
    const auto* const bytes = static_cast<const uint8_t*>(value);
    for (socklen_t i = 0; i < length; ++i) os << (i == 0 ? "" : " ") << unsigned{bytes[i]};
    os << "], " << length << ")";
    fake::syscalls().calls.push_back(os.str());
    return fake::syscalls().setsockopt();
}

ssize_t __wrap_sendto(int fd, const void* message, size_t length, int flags,
                      const struct sockaddr* to, socklen_t addressLength) {
    std::ostringstream os;
    os << "sendto(" << fd << ", " << length << " bytes, " << flags << ", " << addressLength << ")";
    fake::syscalls().calls.push_back(os.str());
    const auto* const bytes = static_cast<const uint8_t*>(message);
    fake::SentMessage sent{fd, {bytes, bytes + length}, flags, {}, addressLength};
    memcpy(&sent.to, to, sizeof sent.to);
    fake::syscalls().sent.push_back(sent);
    return static_cast<ssize_t>(fake::syscalls().sendto(length));
}

int __wrap_close(int fd) {
    std::ostringstream os;
    os << "close(" << fd << ")";
    fake::syscalls().calls.push_back(os.str());
    return fake::syscalls().close();
}

unsigned __wrap_if_nametoindex(const char* name) {
    fake::syscalls().calls.push_back("if_nametoindex(\"" + std::string(name) + "\")");
    return fake::syscalls().ifNameToIndex(name);
}

}  // extern "C"
