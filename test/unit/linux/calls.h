// SPDX-License-Identifier: MIT
// System and library calls of the platform whose results a test may change.
#ifndef PMTUD_TEST_LINUX_CALLS_H
#define PMTUD_TEST_LINUX_CALLS_H

#include <poll.h>
#include <sys/socket.h>

#include <sys/types.h>
#include <cstddef>
#include <functional>

struct mnl_socket;
struct nft_ctx;

/// The replacement for each function; if it is empty, the function itself is called. Set it before
/// another thread makes the call.
struct Calls {
    std::function<int(int domain, int type, int protocol)> socket;
    std::function<int(int fd, mmsghdr* messages, unsigned int count, int flags)> sendmmsg;
    std::function<int(int fd, mmsghdr* messages, unsigned int count, int flags)> recvmmsg;
    std::function<ssize_t(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                          socklen_t* fromSize)>
        recvfrom;
    std::function<int(pollfd* descriptors, nfds_t count, int timeout)> poll;
    std::function<int(int fd, unsigned long request, void* argument)> ioctl;
    std::function<ssize_t(const mnl_socket* socket, const void* message, size_t size)> netlinkSend;
    std::function<int(mnl_socket* socket, unsigned int groups, pid_t port)> netlinkBind;
    std::function<int(nft_ctx* context, const char* commands)> nftRun;
    std::function<const char*(nft_ctx* context)> nftError;
};

extern Calls calls;

/// The functions themselves.
namespace real {
int socket(int domain, int type, int protocol);
int sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags);
ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* fromSize);
int poll(pollfd* descriptors, nfds_t count, int timeout);
int netlinkBind(mnl_socket* socket, unsigned int groups, pid_t port);
int nftRun(nft_ctx* context, const char* commands);
}  // namespace real

/// Sets errno and returns -1, as a failing call does.
int refuse(int error);

#endif
