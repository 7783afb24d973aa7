// SPDX-License-Identifier: MIT
// Why the start failed, and what to do about it.
#include "start_problem.h"

#include <cerrno>
#include <system_error>

#include "ruleset.h"

namespace pmtud_linux {

namespace {

std::string causeOf(int error) {
    switch (error) {
        case EPERM:
            return "CAP_NET_ADMIN or CAP_NET_RAW is missing; give the process both, in the user "
                   "namespace that owns the network";
        case EBUSY:
            return "log group " + std::to_string(kLogGroup) +
                   " belongs to another process (see /proc/net/netfilter/nfnetlink_log); "
                   "end it";
        case EINVAL:
            return "the kernel has no log target; modprobe nfnetlink_log";
        case EPROTONOSUPPORT:
            return "the kernel has no netfilter netlink; modprobe nfnetlink";
        case EAFNOSUPPORT:
            return "a socket family is forbidden; check RestrictAddressFamilies= in the unit";
        case EMFILE:
        case ENFILE:
            return "too many open files; raise the limit (LimitNOFILE=, ulimit -n)";
        case ENOMEM:
        case ENOBUFS:
            return "out of memory";
        default:
            return std::generic_category().message(error);
    }
}

std::string numbered(int result) { return "(" + std::to_string(result) + "): "; }

}  // namespace

std::string startProblem(int result) {
    return "nothing is served " + numbered(result) + causeOf(-result);
}

std::string threadProblem(int result) {
    const std::string start = "cannot start the receive thread " + numbered(result);
    if (result == -EAGAIN)
        return start + "the limit on tasks is reached; raise it (TasksMax=, ulimit -u)";
    return start + causeOf(-result);
}

}  // namespace pmtud_linux
