// SPDX-License-Identifier: MIT
// System and library calls of the platform whose results a test may change.
#ifndef PMTUD_TEST_LINUX_CALLS_H
#define PMTUD_TEST_LINUX_CALLS_H

#include <poll.h>
#include <sys/socket.h>

#include <sys/types.h>
#include <cstddef>
#include <ctime>
#include <functional>

struct mnl_socket;
struct nft_ctx;

struct Calls {
    std::function<int(int domain, int type, int protocol)> socket;
    std::function<int(int fd, mmsghdr* messages, unsigned int count, int flags)> sendmmsg;
    std::function<int(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout)>
        recvmmsg;
    std::function<ssize_t(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                          socklen_t* fromSize)>
        recvfrom;
    std::function<int(pollfd* descriptors, nfds_t count, int timeout)> poll;
    std::function<time_t(time_t* now)> time;
    std::function<int(int fd, unsigned long request, void* argument)> ioctl;
    std::function<ssize_t(const mnl_socket* socket, const void* message, size_t size)> netlinkSend;
    std::function<int(mnl_socket* socket, unsigned int groups, pid_t port)> netlinkBind;
    std::function<int(nft_ctx* context, const char* commands)> nftRun;
    std::function<const char*(nft_ctx* context)> nftError;
    std::function<int(nft_ctx* context)> nftKeepErrors;
};

/// The functions themselves.
extern const Calls& real;

/// What is called in their place. Change it before another thread makes the call.
extern Calls& calls;

/// Sets errno and returns -1, as a failing call does.
int refuse(int error);

/// A replacement that always fails.
inline auto failing(int error) {
    return [error](auto...) { return refuse(error); };
}

#endif
