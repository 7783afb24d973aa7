// SPDX-License-Identifier: MIT
// A switch and two hosts in private network namespaces.
#include "world.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

using pmtud_linux::Descriptor;

namespace {

class Isolation : public testing::Environment {
    // Only when the tests run: listing them needs no privilege.
    void SetUp() override { machine::isolate(); }
};

[[maybe_unused]] const auto* const kIsolation = testing::AddGlobalTestEnvironment(new Isolation);

// All packets of an interface.
sockaddr_ll address(int ifindex) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = ifindex;
    link.sll_protocol = htons(ETH_P_ALL);
    return link;
}

template <typename Value>
void setOption(const Descriptor& socket, int level, int option, Value value) {
    check(setsockopt(socket.get(), level, option, &value, sizeof value) == 0, "setsockopt");
}

}  // namespace

void awaitReadable(int fd, const char* what) {
    pollfd readable{fd, POLLIN, 0};
    const int limit = static_cast<int>(std::chrono::milliseconds(kPatience).count());
    const int result = poll(&readable, 1, limit);
    check(result >= 0, "poll");
    if (result == 0) throw std::runtime_error(std::string("timed out waiting for ") + what);
}

void await(const char* what, const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error(std::string("timed out waiting for ") + what);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

void batch(const std::string& commands) {
    FILE* const ip = popen("ip -batch -", "w");
    check(ip != nullptr, "popen");
    const bool written = std::fputs(commands.c_str(), ip) >= 0;
    const int status = pclose(ip);
    if (!written || status != 0) throw std::runtime_error("ip -batch failed");
}

void inOwnProcess(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the failures above";
}

int attach() { return pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool); }

int discard(const st_pktd_shm_queue_entry_data_t*, uint8_t*, int) { return PKTD_VERDICT_DISCARD; }

int startThread(pktd_rx_cb_t callback, const char* client) {
    return pktd_shm_rx_thread_init(client, pktd_rx_queue_pool, pktd_rx_wl_pool, 32, 32, callback,
                                   nullptr);
}

Capture::Capture(const std::string& host) {
    inNetwork(host, [&] {
        m_socket.reset(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        check(m_socket.valid(), "packet socket");
        setOption(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, 32 << 20);
        setOption(m_socket, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
        const sockaddr_ll link = address(indexOf("eth0"));
        check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&link), sizeof link) == 0,
              "bind");
    });
}

Bytes Capture::next(const std::function<bool(const Bytes&)>& wanted) {
    for (;;) {
        awaitReadable(m_socket.get(), "a packet");
        Bytes packet(65536);
        sockaddr_ll from{};
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(m_socket.get(), packet.data(), packet.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &size);
        check(length >= 0, "recvfrom");
        m_packetType = from.sll_pkttype;
        m_etherType = ntohs(from.sll_protocol);
        packet.resize(static_cast<size_t>(length));
        if (wanted(packet)) return packet;
    }
}

packets::Answer Capture::nextAnswer() {
    m_answer =
        next([](const Bytes& packet) { return packets::readAnswerPacket(packet).has_value(); });
    return *packets::readAnswerPacket(m_answer);
}

RuleChanges::RuleChanges()
    : m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)) {
    check(m_socket.valid(), "netlink socket");
    // Bound: an unbound socket is left out of what the kernel itself sends.
    sockaddr_nl any{};
    any.nl_family = AF_NETLINK;
    check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0, "bind");
    setOption(m_socket, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, int{NFNLGRP_NFTABLES});
}

void RuleChanges::await() {
    for (;;) {
        awaitReadable(m_socket.get(), "a change of the rules");
        alignas(nlmsghdr) std::array<char, 65536> buffer;
        const ssize_t length = recv(m_socket.get(), buffer.data(), buffer.size(), 0);
        if (length < 0 && errno == ENOBUFS) {
            // More came than the socket holds, and it accepts no more until it is empty.
            while (recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0) continue;
            return;
        }
        check(length >= 0, "nftables events");
        int left = static_cast<int>(length);
        const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
        for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
            if (message->nlmsg_type == ((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_NEWGEN)) return;
    }
}

void changeRules(const std::string& command) {
    RuleChanges changes;
    run(command);
    changes.await();
}

std::string ruleset() { return output("nft list ruleset"); }

uint64_t handedOver(const std::string& interface) {
    const std::string text = output("nft list counter inet pmtud " + interface);
    constexpr std::string_view kBefore = "packets ";
    const size_t at = text.find(kBefore);
    if (at == std::string::npos) throw std::runtime_error("no counter " + interface);
    return std::stoull(text.substr(at + kBefore.size()));
}

void forge(int bus, uint32_t port, const Bytes& message) {
    const Descriptor intruder(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, bus));
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = port;
    const ssize_t sent = sendto(intruder.get(), message.data(), message.size(), 0,
                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
    check(sent == static_cast<ssize_t>(message.size()), "forge");
}

uint32_t ownerOfLogGroup() {
    constexpr char kSecondField[] = "awk '$1 == 89 { print $2 }' /proc/net/netfilter/nfnetlink_log";
    return static_cast<uint32_t>(std::stoul(output(kSecondField)));
}

void awaitEmptyQueues() {
    // The fifth field is what the socket holds.
    constexpr char kSocketsWithMessages[] = "awk '$2 == 12 && $5 != 0' /proc/net/netlink";
    await("empty queues", [&] { return output(kSocketsWithMessages).empty(); });
}

// Packets vanish silently until the kernel has noticed the link's carrier, which takes a while.
void awaitLink(const std::string& interface) {
    await("a link", [&] {
        return output("ip -o link show dev " + interface).find("qdisc noqueue state UP") !=
               std::string::npos;
    });
}

int32_t indexOf(const std::string& interface) {
    return static_cast<int32_t>(if_nametoindex(interface.c_str()));
}

void World::SetUp() {
    check(unshare(CLONE_NEWNET) == 0, "unshare");
    for (const std::string host : {"a", "b"}) {
        if (access(("/run/netns/" + host).c_str(), F_OK) == 0) run("ip netns del " + host);
        run("ip netns add " + host);
    }
    batch(R"(link set lo up
link add bcm0.10 address 02:00:00:00:10:01 type veth peer name eth0 netns a address 02:00:00:00:10:02
link add bcm0.20 address 02:00:00:00:20:01 mtu 1280 type veth peer name eth0 netns b address 02:00:00:00:20:02
link add bcm0.30 address 02:00:00:00:30:01 mtu 1000 type veth peer name fence
addr add 10.0.10.1/24 dev bcm0.10
addr add 10.0.20.1/24 dev bcm0.20
addr add 10.0.30.1/24 dev bcm0.30
addr add 2001:db8:10::1/64 dev bcm0.10 nodad
addr add 2001:db8:20::1/64 dev bcm0.20 nodad
link set bcm0.10 up
link set bcm0.20 up
link set bcm0.30 up
link set fence up
neigh add 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add 10.0.20.2 lladdr 02:00:00:00:20:02 dev bcm0.20
neigh add 2001:db8:10::2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add 2001:db8:20::2 lladdr 02:00:00:00:20:02 dev bcm0.20
)");
    run("sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1");
    inNetwork("a", [] {
        batch(R"(link set lo up
addr add 10.0.10.2/24 dev eth0
addr add 2001:db8:10::2/64 dev eth0 nodad
link set eth0 up
route add default via 10.0.10.1
route add default via 2001:db8:10::1
neigh add 10.0.10.1 lladdr 02:00:00:00:10:01 dev eth0
neigh add 2001:db8:10::1 lladdr 02:00:00:00:10:01 dev eth0
)");
    });
    inNetwork("b", [] {
        batch(R"(link set lo up
addr add 10.0.20.2/24 dev eth0
addr add 2001:db8:20::2/64 dev eth0 nodad
link set eth0 up
route add default via 10.0.20.1
route add default via 2001:db8:20::1
)");
    });
    for (const char* const interface : {"bcm0.10", "bcm0.20", "bcm0.30", "fence"})
        awaitLink(interface);
    for (const char* const host : {"a", "b"}) inNetwork(host, [] { awaitLink("eth0"); });
    inNetwork("a", [&] { m_a.open("eth0"); });
    inNetwork("b", [&] { m_b.open("eth0"); });
}

void World::Sender::open(const std::string& name) {
    socket.reset(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(socket.valid(), "packet socket");
    interface = indexOf(name);
}

void World::Sender::send(const Bytes& packet, const std::string& destination) const {
    sockaddr_ll link = address(interface);
    link.sll_protocol = htons(packet[0] >> 4 == 4 ? ETH_P_IP : ETH_P_IPV6);
    link.sll_halen = ETH_ALEN;
    ether_addr mac{};
    check(ether_aton_r(destination.c_str(), &mac) != nullptr, "ether_aton");
    memcpy(link.sll_addr, &mac, sizeof mac);
    const ssize_t sent = sendto(socket.get(), packet.data(), packet.size(), 0,
                                reinterpret_cast<const sockaddr*>(&link), sizeof link);
    check(sent == static_cast<ssize_t>(packet.size()), "sendto");
}

void World::send(const Bytes& packet, const std::string& destination) {
    m_a.send(packet, destination);
}

void World::sendFromB(const Bytes& packet) { m_b.send(packet, "02:00:00:00:20:01"); }

void World::sendInto(const std::string& interface, const Bytes& packet,
                     const std::string& destination) {
    Sender sender;
    sender.open(interface);
    sender.send(packet, destination);
}

void World::sendFence() { send(bytesOf(Ipv4{.size = 1001, .to = "10.0.30.2"})); }
