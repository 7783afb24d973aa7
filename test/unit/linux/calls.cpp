// SPDX-License-Identifier: MIT
// System and library calls of the platform whose results a test may change.
#include "calls.h"

#include <cerrno>
#include <cstdarg>

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
ssize_t __real_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
time_t __real_time(time_t* now);
int __real_ioctl(int fd, unsigned long request, ...);
ssize_t __real_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size);
int __real_mnl_socket_bind(mnl_socket* socket, unsigned int groups, pid_t port);
int __real_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands);
const char* __real_nft_ctx_get_error_buffer(nft_ctx* context);
int __real_nft_ctx_buffer_error(nft_ctx* context);

}  // extern "C"

// Never destroyed: the receive thread makes calls until the process ends.
const Calls& real = *new Calls{__real_socket,
                               __real_sendmmsg,
                               __real_recvmmsg,
                               __real_recvfrom,
                               __real_poll,
                               __real_time,
                               __real_ioctl,
                               __real_mnl_socket_sendto,
                               __real_mnl_socket_bind,
                               __real_nft_run_cmd_from_buffer,
                               __real_nft_ctx_get_error_buffer,
                               __real_nft_ctx_buffer_error};
Calls& calls = *new Calls(real);

int refuse(int error) {
    errno = error;
    return -1;
}

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
    return calls.socket(domain, type, protocol);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    return calls.sendmmsg(fd, messages, count, flags);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
    return calls.recvmmsg(fd, messages, count, flags, timeout);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize) {
    return calls.recvfrom(fd, buffer, size, flags, from, fromSize);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    return calls.poll(descriptors, count, timeout);
}

time_t __wrap_time(time_t* now) { return calls.time(now); }

int __wrap_ioctl(int fd, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return calls.ioctl(fd, request, argument);
}

ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size) {
    return calls.netlinkSend(socket, message, size);
}

int __wrap_mnl_socket_bind(mnl_socket* socket, unsigned int groups, pid_t port) {
    return calls.netlinkBind(socket, groups, port);
}

int __wrap_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands) {
    return calls.nftRun(context, commands);
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* context) { return calls.nftError(context); }

int __wrap_nft_ctx_buffer_error(nft_ctx* context) { return calls.nftKeepErrors(context); }

// The C library's headers may call these instead in optimised builds.
ssize_t __wrap___recvfrom_chk(int fd, void* buffer, size_t size, size_t /*room*/, int flags,
                              sockaddr* from, socklen_t* fromSize) {
    return calls.recvfrom(fd, buffer, size, flags, from, fromSize);
}

int __wrap___poll_chk(pollfd* descriptors, nfds_t count, int timeout, size_t /*room*/) {
    return calls.poll(descriptors, count, timeout);
}

}  // extern "C"
