// SPDX-License-Identifier: MIT
// Replaces the dispatcher's netlink sockets.
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <utility>

#include "dispatcher_world.h"

using fuzz::fail;
using fuzz::Opened;
using fuzz::require;
using fuzz::Sender;
using fuzz::world;

namespace {

constexpr uint32_t kPortId = 77;

// Where a receive call puts a datagram and its sender.
struct Room {
    void* buffer;
    size_t size;
    sockaddr* address;
    socklen_t* addressSize;

    // With zeros up to the next boundary.
    ssize_t give(Bytes datagram, Sender sender = Sender::kKernel) const {
        require(*addressSize >= sizeof(sockaddr_nl), "the sender is asked for");
        *addressSize = fuzz::putSender(address, sender);
        const auto length = static_cast<ssize_t>(datagram.size());
        datagram.resize(std::min(Netlink::aligned(datagram.size()), size));
        if (!datagram.empty()) memcpy(buffer, datagram.data(), datagram.size());
        return length;
    }
};

// Links.

Bytes endOfList(bool isInterrupted) {
    Netlink message(NLMSG_DONE, 4, world->links.sequence());
    message.header().nlmsg_flags = static_cast<uint16_t>(isInterrupted ? NLM_F_DUMP_INTR : 0);
    return message.bytes;
}

int failLinks(int error) {
    if (error == ENOBUFS) world->links.takeLoss();
    if (error == EAGAIN || error == EINTR) world->links.takeNothing();
    return fail(error);
}

ssize_t giveLinks(const Bytes& datagram, Sender sender, const Room& room) {
    if (sender == Sender::kKernel && datagram.size() > room.size) world->links.takeLoss();
    if (sender == Sender::kKernel && datagram.size() <= room.size) {
        Bytes padded = datagram;
        padded.resize(Netlink::aligned(padded.size()));
        world->links.take(fuzz::messagesOf(padded, datagram.size()));
    }
    return room.give(datagram, sender);
}

ssize_t receiveLinks(const Room& room) {
    const uint8_t drawn = world->input.byte();
    const uint8_t choice = drawn % 16;
    const Sender sender = drawn / 16 == 15   ? Sender::kProcess
                          : drawn / 16 == 14 ? Sender::kNobody
                                             : Sender::kKernel;
    const bool isListing = world->links.isListing();
    // Without input every list ends, and nothing else comes.
    if (choice == 0 && isListing) return giveLinks(endOfList(false), sender, room);
    if (choice == 0) return failLinks(EAGAIN);
    if (choice == 1) return failLinks(isListing ? EAGAIN : EINTR);
    if (choice == 2) return failLinks(ENOBUFS);
    if (choice == 3) return failLinks(EBADF);
    if (choice == 4 && isListing)
        return giveLinks(errorMessage(world->links.sequence(), -EPERM).bytes, sender, room);
    if (choice == 5 && isListing) return giveLinks(endOfList(true), sender, room);
    Bytes datagram;
    const auto append = [&datagram](const Bytes& message) {
        datagram.resize(Netlink::aligned(datagram.size()));
        datagram = datagram + message;
    };
    for (int count = 1 + choice % 4; count > 0; --count)
        append(fuzz::drawLinkMessage(world->input));
    if (choice >= 12 && isListing) append(endOfList(false));
    return giveLinks(datagram, sender, room);
}

// The log group and the counter.

ssize_t receiveAnswerOfGroup(const Room& room) {
    constexpr std::array<int, 8> kErrors = {0, 0, 0, 0, -EPERM, -EBUSY};
    const uint8_t drawn = world->input.byte();
    const uint8_t choice = drawn % 8;
    const Sender sender = drawn >= 0xF0 ? Sender::kProcess : Sender::kKernel;
    if (choice == 7) return fail(ENOBUFS);
    if (choice < 6)
        return room.give(errorMessage(world->groupSequence, kErrors[choice], kPortId).bytes,
                         sender);
    const uint8_t kind = world->input.byte();
    return room.give(fuzz::drawLogMessage(world->input, kind), sender);
}

struct Answer {
    std::optional<Bytes> datagram;  // nothing: the socket has lost something
    Sender sender = Sender::kKernel;
};
std::deque<Answer> counterAnswers;

Bytes counterMessage(uint32_t sequence, uint64_t packets, uint8_t style) {
    Netlink message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWOBJ, 4, sequence);
    message.header().nlmsg_pid = kPortId;
    Bytes number(8);
    put16(number, 6, packets);
    if (style == 3) number.resize(4);
    if (style != 4)
        message.nest(NLA_F_NESTED | NFTA_OBJ_DATA, nested().add(NFTA_COUNTER_PACKETS, number));
    if (style == 6) message.header().nlmsg_len = 0x80000010;
    return message.bytes;
}

// As the kernel answers, or in one of the ways that it could fail.
ssize_t askForCounter(const nlmsghdr& request) {
    const uint8_t style = std::exchange(world->counterStyle, uint8_t{0});
    if (style == 7 || world->failsNow()) {
        world->readCounter(std::nullopt);
        return fail(ENOBUFS);
    }
    const uint32_t sequence = request.nlmsg_seq;
    const uint64_t left = world->answersThatLeft;
    if (style == 1) {
        counterAnswers.push_back({counterMessage(sequence, left + 1, 0), Sender::kProcess});
        counterAnswers.push_back({errorMessage(sequence, -EPERM, kPortId).bytes, Sender::kNobody});
    }
    if (style == 5) counterAnswers.push_back({});
    counterAnswers.push_back({style == 2 ? errorMessage(sequence, -ENOENT, kPortId).bytes
                                         : counterMessage(sequence, left, style)});
    world->readCounter(style < 2 ? std::optional(left) : std::nullopt);
    return request.nlmsg_len;
}

ssize_t receiveCounter(const Room& room) {
    if (counterAnswers.empty()) return fail(EAGAIN);
    const Answer next = std::move(counterAnswers.front());
    counterAnswers.pop_front();
    return next.datagram ? room.give(*next.datagram, next.sender) : fail(ENOBUFS);
}

}  // namespace

extern "C" {

mnl_socket* __wrap_mnl_socket_open2(int bus, int) {
    if (world->failsNow()) {
        fail(EMFILE);
        return nullptr;
    }
    Opened& other = world->group.isOpen ? world->counter : world->group;
    Opened& opened = bus == NETLINK_ROUTE ? world->linkSocket : other;
    if (&opened == &world->group) counterAnswers.clear();
    require(!std::exchange(opened.isOpen, true), "a socket is opened once");
    return reinterpret_cast<mnl_socket*>(&opened);
}

int __wrap_mnl_socket_get_fd(const mnl_socket* socket) {
    return reinterpret_cast<const Opened*>(socket)->fd;
}

unsigned int __wrap_mnl_socket_get_portid(const mnl_socket*) { return kPortId; }

int __wrap_mnl_socket_bind(mnl_socket*, unsigned int, pid_t) { return fuzz::answerOrFail(); }

int __wrap_mnl_socket_close(mnl_socket* socket) {
    require(std::exchange(reinterpret_cast<Opened*>(socket)->isOpen, false),
            "a socket is closed once");
    return 0;
}

ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size) {
    const auto& request = *static_cast<const nlmsghdr*>(message);
    require(request.nlmsg_len == size, "length of a request");
    const int fd = __wrap_mnl_socket_get_fd(socket);
    if (fd == world->counter.fd) return askForCounter(request);
    if (fuzz::answerOrFail() < 0) return -1;
    if (fd == world->linkSocket.fd)
        world->links.request(request.nlmsg_seq);
    else
        world->groupSequence = request.nlmsg_seq;
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* address,
                        socklen_t* addressSize) {
    const Room room{buffer, size, address, addressSize};
    require(flags == (fd == world->linkSocket.fd ? MSG_DONTWAIT | MSG_TRUNC : 0), "flags");
    if (fd == world->linkSocket.fd) return receiveLinks(room);
    return fd == world->counter.fd ? receiveCounter(room) : receiveAnswerOfGroup(room);
}

// What a hardened build calls.
ssize_t __wrap___recvfrom_chk(int fd, void* buffer, size_t size, size_t room, int flags,
                              sockaddr* address, socklen_t* addressSize) {
    require(size <= room, "the buffer has room");
    return __wrap_recvfrom(fd, buffer, size, flags, address, addressSize);
}

}  // extern "C"
