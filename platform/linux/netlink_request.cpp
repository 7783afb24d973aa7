// SPDX-License-Identifier: MIT
// One netlink request to the kernel, and its answer.
#include "netlink_request.h"

#include <array>
#include <atomic>
#include <cerrno>

#include "netlink.h"

namespace pmtud_linux {

int requestFromKernel(const MnlSocket& socket, nlmsghdr* request, mnl_cb_t take, void* data) {
    // Static, so that no number repeats: if receiving an answer failed, the rest of it arrives
    // before the next answer and must not be mistaken for it.
    static std::atomic<unsigned int> sequence = 0;
    request->nlmsg_flags |= NLM_F_REQUEST;
    if (take == nullptr) request->nlmsg_flags |= NLM_F_ACK;
    request->nlmsg_seq = ++sequence;
    if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) return -errno;
    for (;;) {
        alignas(nlmsghdr) std::array<char, 8192> buffer;
        sockaddr_nl sender{};
        socklen_t senderSize = sizeof sender;
        const ssize_t received =
            recvfrom(mnl_socket_get_fd(socket.get()), buffer.data(), buffer.size(), 0,
                     reinterpret_cast<sockaddr*>(&sender), &senderSize);
        if (received < 0) return -errno;
        if (!isFromKernel(sender, senderSize)) continue;
        const unsigned int port = mnl_socket_get_portid(socket.get());
        const size_t whole = wholeMessages(buffer.data(), static_cast<size_t>(received));
        const int result = mnl_cb_run(buffer.data(), whole, request->nlmsg_seq, port, take, data);
        if (result == MNL_CB_STOP) return 0;
        if (result == MNL_CB_ERROR && errno != EPROTO) return -errno;
    }
}

}  // namespace pmtud_linux
