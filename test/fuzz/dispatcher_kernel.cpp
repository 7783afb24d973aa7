// SPDX-License-Identifier: MIT
// Replaces the dispatcher's other calls to the kernel and to libnftables.
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <nftables/libnftables.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <utility>

#include "dispatcher_world.h"
#include "ruleset.h"

using fuzz::answerOrFail;
using fuzz::fail;
using fuzz::Opened;
using fuzz::require;
using fuzz::world;

namespace {

constexpr int kPlaceholder = 899;
constexpr int kPacketSocket = 900;
constexpr int kRawSocket4 = 904;
constexpr int kRawSocket6 = 906;

int happen(uint8_t choice, pollfd* ready) {
    using namespace std::chrono_literals;
    switch (choice % 8) {
        case 4:
            world->now += 1s;
            return 0;
        case 5:
            world->callsUntilFailure = 1 + choice / 8 % 4;
            return 0;
        case 6:
            world->counterStyle = choice / 8 % 8;
            return 0;
        case 7:
            if (choice < 0x40) return fail(EINTR);
            if (choice < 0x80) world->logIsDown = !world->logIsDown;
            if (choice >= 0x80) world->now += choice < 0xC0 ? 29s : 999ms;
            return 0;
        default:
            ready[0].revents = choice % 8 != 2 ? POLLIN : 0;
            ready[1].revents = choice % 8 >= 2 ? POLLIN : 0;
            return 1;
    }
}

// Whether a new table for the interfaces would have the same rules.
bool areFitting(const fuzz::RulesModel& rules) {
    return rules == fuzz::newTable(world->links.vlans());
}

int refuse(Opened& context) {
    constexpr std::array<const char*, 4> kRefusals = {
        "Error: Could not process rule: Operation not permitted\nadd rule\n^^^^\n",
        "Error: Could not process rule: No such file or directory", "", "Error: syntax error\n"};
    context.refusal = world->input.oneOf(kRefusals);
    return -1;
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, mode_t mode);

int __wrap_recvmmsg(int fd, mmsghdr* headers, unsigned room, int flags, timespec*) {
    require(fd == world->group.fd && (flags & MSG_DONTWAIT) != 0,
            "only the group's messages are received, without waiting");
    world->settle();
    const uint8_t choice = world->input.byte();
    constexpr std::array<int, 4> kErrors = {EAGAIN, EINTR, ENOBUFS, EBADF};
    if (choice == 2) ++world->overruns;
    if (choice < 8) return fail(choice < 4 ? kErrors[choice] : EAGAIN);
    const unsigned wanted = choice >= 0xF0 ? room : std::min(room, choice % 4U + 1);
    unsigned count = 0;
    for (; count < wanted && !world->input.exhausted(); ++count)
        world->drawDatagram(headers[count]);
    return count == 0 ? fail(EAGAIN) : static_cast<int>(count);
}

// Without input everything is logged in one last round, and then the wait fails for good.
int __wrap_poll(pollfd* ready, nfds_t count, int timeout) {
    const bool isOver = world->input.exhausted();
    if (count == 1) {
        if (!isOver && world->input.byte() % 4 != 3) return 1;
        world->links.timeOut();
        return 0;
    }
    world->settle();
    // The interfaces may also have taken back what was refused.
    if (areFitting(*world->rules))
        world->areRulesRefused = false;
    else
        require(world->areRulesRefused, "the rules follow the interfaces");
    const bool isIdle = !world->areRulesRefused && !world->links.isStale() && world->isAllLogged();
    require(timeout == (isIdle ? -1 : 1000), "the wait ends if there is something to do");
    require(ready[0].fd == world->group.fd && ready[1].fd == world->linkSocket.fd,
            "the group and the links are awaited");
    if (!isOver) return happen(world->input.byte(), ready);
    world->logIsDown = false;
    world->now += std::chrono::seconds(1);
    if (!std::exchange(world->isEnding, true)) return 0;
    require(world->isAllLogged(), "everything that was counted is logged");
    return fail(EBADF);
}

int __wrap___poll_chk(pollfd* ready, nfds_t count, int timeout, size_t room) {
    require(count * sizeof(pollfd) <= room, "the array has room");
    return __wrap_poll(ready, count, timeout);
}

int __wrap_setsockopt(int fd, int, int, const void* value, socklen_t size) {
    if (fd != kRawSocket6) return answerOrFail();
    require(
        fuzz::bigEndian({static_cast<const uint8_t*>(value), size}) == world->givenBack().egress,
        "an answer leaves via the interface that the kernel chose");
    if (!world->failsNow()) return 0;
    world->send(false, false);
    return fail(ENOBUFS);
}

int __wrap_socket(int family, int type, int protocol) {
    const bool isPackets = family == AF_PACKET;
    const int fd = isPackets ? kPacketSocket : family == AF_INET ? kRawSocket4 : kRawSocket6;
    require(isPackets ? protocol == 0 : protocol == IPPROTO_RAW, "the socket only sends");
    require((type & SOCK_CLOEXEC) != 0, "no other program inherits it");
    world->givenBack();
    if (world->failsNow()) {
        world->send(isPackets, false);
        return fail(EPERM);
    }
    require(world->descriptors.insert(fd).second, "a socket is opened once");
    return fd;
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* address,
                      socklen_t) {
    const fuzz::Withdrawn& given = world->givenBack();
    require(world->descriptors.contains(fd), "an open socket sends");
    require(fuzz::same({static_cast<const uint8_t*>(bytes), size}, given.answer),
            "the kernel's own answer is sent");
    require((flags & MSG_DONTWAIT) != 0, "nothing waits");
    const bool isNear = fd == kPacketSocket;
    const bool isIpv4 = given.answer[0] / 16 == 4;
    require(isNear || fd == (isIpv4 ? kRawSocket4 : kRawSocket6), "a socket of the family");
    if (isNear) {
        sockaddr_ll to;
        memcpy(&to, address, sizeof to);
        require(static_cast<uint32_t>(to.sll_ifindex) == given.egress, "the packet's interface");
        require(fuzz::same({to.sll_addr, 6}, Span(given.copy->addresses).subspan(6)),
                "the station that the packet came from");
    } else {
        const auto* const to = reinterpret_cast<const uint8_t*>(address) + (isIpv4 ? 4 : 8);
        require(memcmp(to, &given.answer[isIpv4 ? 16 : 24], isIpv4 ? 4 : 16) == 0,
                "the answer's own receiver");
    }
    const bool fails = world->failsNow();
    world->send(isNear, !fails);
    if (fails) return fail(ENOBUFS);
    // An answer that is routed passes the rules, which count it.
    if (!isNear) ++world->answersThatLeft;
    return static_cast<ssize_t>(size);
}

// The interface may be gone by now, or have another name or MTU.
int __wrap_ioctl(int, unsigned long request, void* argument) {
    require(world->isAnswerLost(), "the interface is looked up only after a loss");
    auto& answer = *static_cast<ifreq*>(argument);
    const uint8_t choice = world->input.byte();
    if (choice % 8 == 7) return fail(ENODEV);
    if (request == SIOCGIFNAME) strcpy(answer.ifr_name, choice % 8 == 6 ? "eth0" : "bcm0.1");
    if (request == SIOCGIFINDEX) answer.ifr_ifindex = choice % 8;
    if (request == SIOCGIFMTU) answer.ifr_mtu = 500 + choice * 64;
    return 0;
}

// /dev/null keeps a low descriptor free while the group is opened. The fuzzer opens other files.
int __wrap_open(const char* path, int flags, mode_t mode) {
    if (strcmp(path, "/dev/null") != 0) return __real_open(path, flags, mode);
    if (world->input.byte() % 8 == 7) return fail(EMFILE);
    require(!world->group.isOpen && world->descriptors.insert(kPlaceholder).second,
            "the placeholder is older than the group");
    return kPlaceholder;
}

int __wrap_close(int fd) {
    require(world != nullptr && world->descriptors.erase(fd) == 1, "what is closed was open");
    return 0;
}

nft_ctx* __wrap_nft_ctx_new(uint32_t) {
    require(world->group.isOpen && !world->descriptors.contains(kPlaceholder),
            "the rules take the placeholder's descriptor");
    if (world->failsNow()) return nullptr;
    Opened& opened = world->rulesContext.isOpen ? world->checkContext : world->rulesContext;
    require(!std::exchange(opened.isOpen, true), "there is one connection, and one to check");
    return reinterpret_cast<nft_ctx*>(&opened);
}

// The kernel removes the table with the connection that owns it.
void __wrap_nft_ctx_free(nft_ctx* context) {
    auto& closed = *reinterpret_cast<Opened*>(context);
    require(std::exchange(closed.isOpen, false), "a connection to nftables is closed once");
    if (&closed == &world->rulesContext) world->rules.reset();
}

void __wrap_nft_ctx_set_dry_run(nft_ctx* context, bool) {
    require(reinterpret_cast<Opened*>(context) == &world->checkContext,
            "only the connection for checks is set to a dry run");
}

int __wrap_nft_ctx_buffer_output(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_ctx_buffer_error(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_run_cmd_from_buffer(nft_ctx* to, const char* text) {
    auto& context = *reinterpret_cast<Opened*>(to);
    const std::string commands = text;
    require(context.isOpen && world->group.isOpen && !commands.empty(), "no rules without a group");
    if (&context == &world->checkContext || commands == "list table inet pmtud\n") {
        require(world->areRulesRefused && !world->isRunning,
                "only a refused start is investigated");
        const bool isOdd = world->input.byte() % 8 == 7;
        if (&context == &world->checkContext) return isOdd ? refuse(context) : 0;
        return isOdd ? 0 : -1;
    }
    if (commands.starts_with("add element inet pmtud left-to-kernel { \"")) {
        const bool fails = world->failsNow();
        world->leaveToKernel(!fails);
        return fails ? refuse(context) : 0;
    }
    world->areRulesRefused = world->failsNow();
    if (world->areRulesRefused) return refuse(context);
    fuzz::RulesModel changed = world->rules.value_or(fuzz::RulesModel());
    changed.run(commands);
    require(areFitting(changed), "a change leads to the rules that a new table would have");
    if (world->rules) changed.requireKept(*world->rules);
    world->rules = std::move(changed);
    return 0;
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* context) {
    return reinterpret_cast<const Opened*>(context)->refusal.c_str();
}

}  // extern "C"
