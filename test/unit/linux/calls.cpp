// SPDX-License-Identifier: MIT
// System and library calls of the platform whose results a test may change.
#include "calls.h"

#include <cstdarg>

Calls calls;

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags);
int __real_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout);
ssize_t __real_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands);
const char* __real_nft_ctx_get_error_buffer(nft_ctx* context);

int __wrap_socket(int domain, int type, int protocol) {
    if (calls.socket) return calls.socket(domain, type, protocol);
    return __real_socket(domain, type, protocol);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    if (calls.sendmmsg) return calls.sendmmsg(fd, messages, count, flags);
    return __real_sendmmsg(fd, messages, count, flags);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout) {
    if (calls.recvmmsg) return calls.recvmmsg(fd, messages, count, flags);
    return __real_recvmmsg(fd, messages, count, flags, timeout);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                        socklen_t* fromSize) {
    if (calls.recvfrom) return calls.recvfrom(fd, buffer, size, flags, from, fromSize);
    return __real_recvfrom(fd, buffer, size, flags, from, fromSize);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (calls.poll) return calls.poll(descriptors, count, timeout);
    return __real_poll(descriptors, count, timeout);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (calls.ioctl) return calls.ioctl(fd, request, argument);
    return __real_ioctl(fd, request, argument);
}

int __wrap_nft_run_cmd_from_buffer(nft_ctx* context, const char* commands) {
    if (calls.nftRun) return calls.nftRun(context, commands);
    return __real_nft_run_cmd_from_buffer(context, commands);
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* context) {
    if (calls.nftError) return calls.nftError(context);
    return __real_nft_ctx_get_error_buffer(context);
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

namespace real {

int socket(int domain, int type, int protocol) { return __real_socket(domain, type, protocol); }

int sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    return __real_sendmmsg(fd, messages, count, flags);
}

int recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags) {
    return __real_recvmmsg(fd, messages, count, flags, nullptr);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from,
                 socklen_t* fromSize) {
    return __real_recvfrom(fd, buffer, size, flags, from, fromSize);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    return __real_poll(descriptors, count, timeout);
}

int ioctl(int fd, unsigned long request, void* argument) {
    return __real_ioctl(fd, request, argument);
}

int nftRun(nft_ctx* context, const char* commands) {
    return __real_nft_run_cmd_from_buffer(context, commands);
}

}  // namespace real
