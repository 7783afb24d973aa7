// SPDX-License-Identifier: MIT
// A switch and two hosts in private network namespaces.
#include "world.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

using pmtud_linux::Descriptor;

namespace {

void makeDevice(const char* path, unsigned int minor) {
    check(mknod(path, S_IFCHR | 0666, makedev(1, minor)) == 0, path);
}

void write(const char* path, const char* text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) throw std::runtime_error(std::string("cannot write ") + path);
}

void batch(const std::string& commands) {
    FILE* const ip = popen("ip -batch -", "w");
    check(ip != nullptr, "popen");
    const bool written = std::fputs(commands.c_str(), ip) >= 0;
    const int status = pclose(ip);
    if (!written || status != 0) throw std::runtime_error("ip -batch failed");
}

}  // namespace

void check(bool succeeded, const char* what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_ll address(int ifindex) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = ifindex;
    link.sll_protocol = htons(ETH_P_ALL);
    return link;
}

void isolate() {
    check(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "the kernel tests need root: unshare");
    check(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    check(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
    check(mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0, "mount /dev");
    makeDevice("/dev/null", 3);
    makeDevice("/dev/zero", 5);
    makeDevice("/dev/urandom", 9);
}

void awaitReadable(int fd, const char* what) {
    pollfd readable{fd, POLLIN, 0};
    const int limit = static_cast<int>(std::chrono::milliseconds(kPatience).count());
    const int result = poll(&readable, 1, limit);
    check(result >= 0, "poll");
    if (result == 0) throw std::runtime_error(std::string("timed out waiting for ") + what);
}

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::string output(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r");
    check(pipe != nullptr, "popen");
    std::string text;
    std::array<char, 4096> piece;
    for (size_t size = 0; (size = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;)
        text.append(piece.data(), size);
    if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
    return text;
}

void onHost(const std::string& host, const std::function<void()>& action) {
    const Descriptor home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    const Descriptor there(open(("/run/netns/" + host).c_str(), O_RDONLY | O_CLOEXEC));
    check(setns(there.get(), CLONE_NEWNET) == 0, "setns");
    const auto goHome = [](const Descriptor* back) { setns(back->get(), CLONE_NEWNET); };
    const std::unique_ptr<const Descriptor, decltype(goHome)> guard(&home, goHome);
    action();
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

int32_t indexOf(const std::string& interface) {
    return static_cast<int32_t>(if_nametoindex(interface.c_str()));
}

// A link takes packets only once the kernel has seen its carrier, which it does in its own time;
// until then they vanish in silence.
void awaitLink(const std::string& interface) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (output("ip -o link show dev " + interface).find("qdisc noqueue state UP") ==
           std::string::npos) {
        check(std::chrono::steady_clock::now() < deadline, "awaiting a link");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
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
addr add fd00:10::1/64 dev bcm0.10 nodad
addr add fd00:20::1/64 dev bcm0.20 nodad
link set bcm0.10 up
link set bcm0.20 up
link set bcm0.30 up
link set fence up
neigh add 10.0.10.2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add 10.0.20.2 lladdr 02:00:00:00:20:02 dev bcm0.20
neigh add fd00:10::2 lladdr 02:00:00:00:10:02 dev bcm0.10
neigh add fd00:20::2 lladdr 02:00:00:00:20:02 dev bcm0.20
)");
    write("/proc/sys/net/ipv4/ip_forward", "1");
    write("/proc/sys/net/ipv6/conf/all/forwarding", "1");
    onHost("a", [] {
        batch(R"(link set lo up
addr add 10.0.10.2/24 dev eth0
addr add fd00:10::2/64 dev eth0 nodad
link set eth0 up
route add default via 10.0.10.1
route add default via fd00:10::1
neigh add 10.0.10.1 lladdr 02:00:00:00:10:01 dev eth0
neigh add fd00:10::1 lladdr 02:00:00:00:10:01 dev eth0
)");
    });
    onHost("b", [] {
        batch(R"(link set lo up
addr add 10.0.20.2/24 dev eth0
addr add fd00:20::2/64 dev eth0 nodad
link set eth0 up
route add default via 10.0.20.1
route add default via fd00:20::1
)");
    });
    for (const char* const interface : {"bcm0.10", "bcm0.20", "bcm0.30", "fence"}) {
        awaitLink(interface);
    }
    for (const char* const host : {"a", "b"}) onHost(host, [] { awaitLink("eth0"); });
    onHost("a", [&] { m_a.open("eth0"); });
    onHost("b", [&] { m_b.open("eth0"); });
}

void World::Sender::open(const std::string& name) {
    socket.reset(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    check(socket.valid(), "packet socket");
    interface = indexOf(name);
}

void World::send(const Sender& sender, const Bytes& packet, const std::string& destination) {
    sockaddr_ll link = address(sender.interface);
    link.sll_protocol = htons(packet[0] >> 4 == 4 ? ETH_P_IP : ETH_P_IPV6);
    link.sll_halen = ETH_ALEN;
    ether_addr mac{};
    check(ether_aton_r(destination.c_str(), &mac) != nullptr, "ether_aton");
    memcpy(link.sll_addr, &mac, sizeof mac);
    const ssize_t sent = sendto(sender.socket.get(), packet.data(), packet.size(), 0,
                                reinterpret_cast<const sockaddr*>(&link), sizeof link);
    check(sent == static_cast<ssize_t>(packet.size()), "sendto");
}

void World::send(const Bytes& packet, const std::string& destination) {
    send(m_a, packet, destination);
}

void World::sendFromB(const Bytes& packet) { send(m_b, packet, "02:00:00:00:20:01"); }

void World::sendInto(const std::string& interface, const Bytes& packet,
                     const std::string& destination) {
    Sender sender;
    sender.open(interface);
    send(sender, packet, destination);
}

void World::sendFence() { send(packet(Ipv4{.size = 1001, .destination = "10.0.30.2"})); }
