// SPDX-License-Identifier: MIT
// System and library calls of the platform whose results a test may change.
#include "calls.h"

#include <cerrno>
#include <cstdarg>

Calls calls;

int refuse(int error) {
    errno = error;
    return -1;
}

namespace {

template <typename Result, typename... Arguments>
Result call(const std::function<Result(Arguments...)>& changed, Result (*itself)(Arguments...),
            Arguments... arguments) {
    return changed ? changed(arguments...) : itself(arguments...);
}

}  // namespace

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
ssize_t __real_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __real_ioctl(int fd, unsigned long request, ...);
ssize_t __real_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size);
int __real_mnl_socket_bind(mnl_socket* socket, unsigned int groups, pid_t port);
int __real_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands);
const char* __real_nft_ctx_get_error_buffer(nft_ctx* context);

int __wrap_socket(int domain, int type, int protocol) {
    return call(calls.socket, __real_socket, domain, type, protocol);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    return call(calls.sendmmsg, __real_sendmmsg, fd, messages, count, flags);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
    if (calls.recvmmsg) return calls.recvmmsg(fd, messages, count, flags);
    return __real_recvmmsg(fd, messages, count, flags, timeout);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize) {
    return call(calls.recvfrom, __real_recvfrom, fd, buffer, size, flags, from, fromSize);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    return call(calls.poll, __real_poll, descriptors, count, timeout);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return calls.ioctl ? calls.ioctl(fd, request, argument) : __real_ioctl(fd, request, argument);
}

ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size) {
    return call(calls.netlinkSend, __real_mnl_socket_sendto, socket, message, size);
}

int __wrap_mnl_socket_bind(mnl_socket* socket, unsigned int groups, pid_t port) {
    return call(calls.netlinkBind, __real_mnl_socket_bind, socket, groups, port);
}

int __wrap_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands) {
    return call(calls.nftRun, __real_nft_run_cmd_from_buffer, context, commands);
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* context) {
    return call(calls.nftError, __real_nft_ctx_get_error_buffer, context);
}

// What the C library's headers may make of the same calls in optimised builds.
ssize_t __wrap___recvfrom_chk(int fd, void* buffer, size_t size, size_t /*room*/, int flags,
                              sockaddr* from, socklen_t* fromSize) {
    return __wrap_recvfrom(fd, buffer, size, flags, from, fromSize);
}

int __wrap___poll_chk(pollfd* descriptors, nfds_t count, int timeout, size_t /*room*/) {
    return __wrap_poll(descriptors, count, timeout);
}

}  // extern "C"

int real::socket(int domain, int type, int protocol) {
    return __real_socket(domain, type, protocol);
}
int real::sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    return __real_sendmmsg(fd, messages, count, flags);
}
ssize_t real::recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                       socklen_t* fromSize) {
    return __real_recvfrom(fd, buffer, size, flags, from, fromSize);
}
int real::poll(pollfd* descriptors, nfds_t count, int timeout) {
    return __real_poll(descriptors, count, timeout);
}
int real::netlinkBind(mnl_socket* socket, unsigned int groups, pid_t port) {
    return __real_mnl_socket_bind(socket, groups, port);
}
int real::nftRun(nft_ctx* context, const char* commands) {
    return __real_nft_run_cmd_from_buffer(context, commands);
}
