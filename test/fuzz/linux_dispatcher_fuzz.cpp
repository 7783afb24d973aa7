// SPDX-License-Identifier: MIT
// Fuzzes the dispatcher of the platform for stock Linux: all that the kernel and libnftables tell
// it comes from the input, and its rules and what it hands to the receive callback are checked.
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <nftables/libnftables.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "dispatcher.h"
#include "input.h"
#include "link_message.h"
#include "log_message.h"
#include "netlink_message.h"
#include "pktd.h"
#include "rules_model.h"
#include "ruleset.h"

using fuzz::Built;
using fuzz::Bytes;
using fuzz::Input;
using fuzz::Packet;
using fuzz::require;
using fuzz::RulesModel;
using fuzz::Span;

namespace {

constexpr int offloadSocket = 900;
constexpr int groupSocket = 901;
constexpr int linkSocket = 902;

/// What the callback throws.
struct Stop {};

// The kernel and libnftables, as far as the dispatcher sees them.
struct World {
    explicit World(Input given) : input(given) {}

    Input input;
    bool groupIsOpen = false;
    bool linksAreOpen = false;
    bool offloadIsOpen = false;
    bool contextIsOpen = false;
    uint32_t linkSequence = 0;
    std::optional<RulesModel> rules;  // nothing: there is no table
    std::string refusal;

    Bytes logMessage;
    std::optional<Packet> packet;  // the last of the log group, until it is handed over
};

World* world = nullptr;

int fail(int error) {
    errno = error;
    return -1;
}

// One call in sixteen, while there is input, and then none.
bool drawFailure() { return world->input.byte() % 16 == 15; }

int answerOrFail() {
    return drawFailure() ? fail(world->input.byte() % 8 == 0 ? EINTR : EPERM) : 0;
}

Bytes endOfList() {
    Bytes message(fuzz::messageHeader + 4);
    fuzz::store(message, 0, static_cast<uint32_t>(message.size()));
    fuzz::store(message, 4, uint16_t{NLMSG_DONE});
    fuzz::store(message, 6,
                static_cast<uint16_t>(world->input.byte() % 4 == 3 ? NLM_F_DUMP_INTR : 0));
    fuzz::store(message, 8, world->linkSequence);
    return message;
}

Bytes answerOf(uint32_t sequence) {
    Bytes message(fuzz::messageHeader + sizeof(nlmsgerr));
    fuzz::store(message, 0, static_cast<uint32_t>(message.size()));
    fuzz::store(message, 4, uint16_t{NLMSG_ERROR});
    fuzz::store(message, 8, sequence);
    constexpr std::array<int, 4> errors = {0, -EPERM, -EBUSY, -ENOMEM};
    fuzz::store(message, fuzz::messageHeader, errors[world->input.byte() % 4]);
    return message;
}

ssize_t deliver(const Bytes& datagram, void* buffer, std::size_t size) {
    const std::size_t taken = std::min(datagram.size(), size);
    if (taken != 0) memcpy(buffer, datagram.data(), taken);
    return static_cast<ssize_t>(datagram.size());
}

// Both sockets fail in the ways of a netlink socket.
std::optional<int> drawSocketError(uint8_t choice) {
    switch (choice) {
        case 0:
            return EAGAIN;
        case 1:
            return EINTR;
        case 2:
            return ENOBUFS;
        case 3:
            return EBADF;
        default:
            return std::nullopt;
    }
}

ssize_t receiveLog(void* buffer, std::size_t size) {
    if (const auto error = drawSocketError(world->input.byte() % 16)) return fail(*error);
    world->logMessage = fuzz::drawLogMessage(world->input);
    const bool fits = world->logMessage.size() <= size;
    world->packet = fits ? fuzz::expectedPacket(world->logMessage) : std::nullopt;
    return deliver(world->logMessage, buffer, size);
}

ssize_t receiveLinks(void* buffer, std::size_t size) {
    const uint8_t choice = world->input.byte() % 16;
    if (const auto error = drawSocketError(choice)) return fail(*error);
    if (choice == 4) return deliver(answerOf(world->linkSequence), buffer, size);
    if (choice == 5) return deliver(endOfList(), buffer, size);
    Bytes datagram;
    for (int left = choice / 6; left >= 0; --left) {
        const Bytes message = fuzz::drawLinkMessage(world->input);
        datagram.insert(datagram.end(), message.begin(), message.end());
        datagram.resize(fuzz::aligned(datagram.size()));
    }
    if (choice == 15) {
        const Bytes end = endOfList();
        datagram.insert(datagram.end(), end.begin(), end.end());
    }
    return deliver(datagram, buffer, size);
}

void checkLine(std::string_view text) {
    require(text.find('\n') == text.npos, "what is said is one line");
    require(text.starts_with(" PMTUD-Linux: "), "what is said begins with the platform's name");
}

int callback(const st_pktd_shm_queue_entry_data_t* record, uint8_t* frame, int size) {
    require(world->packet.has_value(), "a frame comes of a message, and a message becomes one");
    require(record->ctrl.vid >= 1 && record->ctrl.vid <= 4094, "the VLAN of a frame");
    Built built;
    require(fuzz::buildExpected(*world->packet, record->ctrl.vid, built), "what becomes a frame");
    fuzz::checkFrame(*record, frame, static_cast<std::size_t>(size), built);
    world->packet.reset();
    if (world->input.byte() == 0xFF) throw Stop();
    return world->input.byte() % 12;
}

}  // namespace

extern "C" {

mnl_socket* __wrap_mnl_socket_open2(int bus, int) {
    if (drawFailure()) {
        errno = EMFILE;
        return nullptr;
    }
    bool& isOpen = bus == NETLINK_ROUTE ? world->linksAreOpen : world->groupIsOpen;
    require(!isOpen, "a socket is opened once");
    isOpen = true;
    return reinterpret_cast<mnl_socket*>(&isOpen);
}

int __wrap_mnl_socket_get_fd(const mnl_socket* socket) {
    return reinterpret_cast<const bool*>(socket) == &world->linksAreOpen ? linkSocket : groupSocket;
}

unsigned int __wrap_mnl_socket_get_portid(const mnl_socket*) { return 0; }

int __wrap_mnl_socket_bind(mnl_socket*, unsigned int, pid_t) { return answerOrFail(); }

int __wrap_mnl_socket_close(mnl_socket* socket) {
    bool& isOpen = *reinterpret_cast<bool*>(socket);
    require(isOpen, "a socket is closed once");
    isOpen = false;
    return 0;
}

ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size) {
    if (answerOrFail() < 0) return -1;
    if (__wrap_mnl_socket_get_fd(socket) == linkSocket)
        world->linkSequence = static_cast<const nlmsghdr*>(message)->nlmsg_seq;
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_mnl_socket_recvfrom(const mnl_socket*, void* buffer, size_t size) {
    const uint8_t choice = world->input.byte();
    if (choice == 0xFF) return fail(ENOBUFS);
    if (choice == 0xFE) return deliver(fuzz::drawLogMessage(world->input), buffer, size);
    return deliver(answerOf(1), buffer, size);
}

ssize_t __wrap_recv(int fd, void* buffer, size_t size, int) {
    require(fd == groupSocket || fd == linkSocket, "messages come from the sockets that are open");
    return fd == groupSocket ? receiveLog(buffer, size) : receiveLinks(buffer, size);
}

// Without input the kernel's list never comes, and the dispatcher's wait fails for good.
int __wrap_poll(pollfd* ready, nfds_t count, int) {
    const bool over = world->input.exhausted();
    if (count == 1) return over || world->input.byte() % 4 == 3 ? 0 : 1;
    const uint8_t choice = world->input.byte();
    if (over) return fail(EBADF);
    if (choice == 0xFF) return fail(EINTR);
    ready[0].revents = (choice & 1) != 0 ? POLLIN : 0;
    ready[1].revents = (choice & 2) != 0 ? POLLIN : 0;
    return 1;
}

int __wrap_setsockopt(int, int, int, const void*, socklen_t) { return answerOrFail(); }

int __wrap_socket(int, int, int) {
    if (answerOrFail() < 0) return -1;
    require(!world->offloadIsOpen, "the socket of the ioctls is opened once");
    world->offloadIsOpen = true;
    return offloadSocket;
}

int __wrap_close(int fd) {
    require(fd == offloadSocket && world->offloadIsOpen, "what is closed was open");
    world->offloadIsOpen = false;
    return 0;
}

// Variadic by its declaration; the platform always gives a request of an interface.
int __wrap_ioctl(int fd, unsigned long request, ifreq* asked) {
    require(fd == offloadSocket && world->offloadIsOpen, "ioctls go to an open socket");
    if (answerOrFail() < 0) return -1;
    if (request == SIOCGIFNAME) {
        // Every byte of it, for a name that nothing ends.
        memset(asked->ifr_name, 'x', sizeof asked->ifr_name);
        const Span name = world->input.bytes(world->input.byte() % (sizeof asked->ifr_name + 1));
        const bool ends = name.size() < sizeof asked->ifr_name;
        for (std::size_t i = 0; i < name.size(); ++i)
            asked->ifr_name[i] = static_cast<char>('a' + name[i] % 26);
        if (ends) asked->ifr_name[name.size()] = '\0';
        return 0;
    }
    const uint32_t flags = world->input.number<uint16_t>();
    memcpy(asked->ifr_data + 4, &flags, sizeof flags);
    return 0;
}

nft_ctx* __wrap_nft_ctx_new(uint32_t) {
    if (drawFailure()) return nullptr;
    require(!world->contextIsOpen, "there is one connection to nftables");
    world->contextIsOpen = true;
    return reinterpret_cast<nft_ctx*>(world);
}

// The table goes with the connection that owns it.
void __wrap_nft_ctx_free(nft_ctx*) {
    require(world->contextIsOpen, "a connection to nftables is closed once");
    world->contextIsOpen = false;
    world->rules.reset();
}

int __wrap_nft_ctx_buffer_output(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_ctx_buffer_error(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_run_cmd_from_buffer(nft_ctx*, const char* commands) {
    require(world->contextIsOpen, "rules go to an open connection");
    if (drawFailure()) {
        constexpr std::array<const char*, 4> refusals = {
            "Error: Could not process rule: Operation not permitted\nadd rule\n^^^^\n",
            "Error: Could not process rule: No such file or directory", "",
            "Error: syntax error\n"};
        world->refusal = world->input.oneOf(refusals);
        return -1;
    }
    std::string_view left = commands;
    require(!left.empty(), "no change without commands");
    const std::string table = pmtud_linux::tableText();
    if (!world->rules) {
        require(left.starts_with(table), "the table comes first");
        left.remove_prefix(table.size());
        world->rules.emplace();
    }
    world->rules->run(std::string(left));
    return 0;
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx*) { return world->refusal.c_str(); }

// Likewise, with one text behind the format.
int __wrap_debug_process(uint32_t channel, const char* format, const char* text) {
    require(channel == 89 && strcmp(format, "%s") == 0, "module and format of what is said");
    checkLine(text);
    return 0;
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World made{Input(data, size)};
    world = &made;
    {
        const auto dispatcher = std::make_unique<pmtud_linux::Dispatcher>();
        const int attached = dispatcher->attach();
        require(attached <= 0, "attaching answers 0 or a negative error");
        if (attached == 0) {
            try {
                dispatcher->run(callback);
            } catch (const std::system_error&) {
            } catch (const Stop&) {
            }
            require(made.groupIsOpen && made.rules, "group and rules stand while it runs");
            dispatcher->detach();
        }
        require(!made.groupIsOpen && !made.contextIsOpen && !made.rules,
                "group and rules are given up");
    }
    require(!made.linksAreOpen && !made.offloadIsOpen, "every socket is closed");
    world = nullptr;
    return 0;
}
