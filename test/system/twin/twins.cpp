// SPDX-License-Identifier: MIT
// Two identical routers, one of them with the daemon, and the hosts around them.
#include "twins.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "private_machine.h"

using machine::check;
using packets::Ipv4;
using packets::Ipv6;
using packets::Mac;

namespace twin {

namespace {

// Fewer than the kernel queues per processor between two interfaces, 1,000.
constexpr size_t kAtOnce = 200;

constexpr char kFenceHost[] = "h";
constexpr char kFenceEnd[] = "i";
constexpr int kFenceEndMtu = 1280;
constexpr size_t kFenceSize = 1400;

// The process is bound to one processor, so that packets arrive in the order in which they are
// sent. The daemon runs on another if there is one.
struct Run {
    std::string daemon;
    int daemonProcessor = 0;
} theRun;

// The VLAN's number is written as two hexadecimal digits: VLAN 10 has 02:00:00:00:10:xx.
std::string macText(int vlan, const char* end) {
    return "02:00:00:00:" + std::to_string(vlan) + ":" + end;
}

Mac macOf(const std::string& host, uint8_t end) {
    return {2, 0, 0, 0, static_cast<uint8_t>(vlanOf(host) / 10 * 16), end};
}
Mac routerMac(const std::string& host) { return macOf(host, 1); }
Mac hostMac(const std::string& host) { return macOf(host, 2); }

// Without the kernel's rate limits, so that all errors can be compared.
constexpr char kRouterSettings[] = R"(sysctl -qw \
    net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0 \
    net.ipv4.conf.all.send_redirects=0 net.ipv4.conf.default.send_redirects=0 \
    net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 \
    net.ipv6.conf.all.accept_ra=0 net.ipv6.conf.default.accept_ra=0 \
    net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1 \
    net.ipv4.icmp_ratelimit=0 net.ipv6.icmp.ratelimit=0 \
    net.ipv4.icmp_msgs_per_sec=1000000 net.ipv4.icmp_msgs_burst=1000000)";

// Only what processes send leaves the router: the hardware itself tells nobody.
constexpr char kMuteHardware[] = R"(table inet hardware
delete table inet hardware
table inet hardware {
    chain mute {
        type filter hook postrouting priority 2000000; policy accept;
        meta skuid 0-4294967295 accept
        icmp type destination-unreachable icmp code frag-needed drop
        icmpv6 type packet-too-big drop
    }
})";

int nextProcessor(const cpu_set_t& processors, int after) {
    for (int i = after + 1; i < CPU_SETSIZE; ++i)
        if (CPU_ISSET(i, &processors)) return i;
    return -1;
}

}  // namespace

void prepareRun(const std::string& daemon) {
    cpu_set_t processors;
    check(sched_getaffinity(0, sizeof processors, &processors) == 0, "processors");
    const int own = nextProcessor(processors, -1);
    const int second = nextProcessor(processors, own);
    theRun = {daemon, second >= 0 ? second : own};
    CPU_ZERO(&processors);
    CPU_SET(own, &processors);
    check(sched_setaffinity(0, sizeof processors, &processors) == 0, "processors");
    machine::isolate();
    // The queue is long enough to hold the log lines of a whole batch until they are read.
    machine::output("echo 100000 >/proc/sys/net/unix/max_dgram_qlen");
}

int vlanOf(const std::string& host) { return 10 * (host[0] - 'a' + 1); }

std::string addressOf(bool isIpv4, int vlan, const std::string& host) {
    return isIpv4 ? "10.0." + std::to_string(vlan) + "." + host
                  : "2001:db8:" + std::to_string(vlan) + "::" + host;
}

Site::Site(const std::string& name) : m_router(name + "-router"), m_hosts(name + "-hosts") {
    m_hosts.shell("sysctl -qw net.ipv6.conf.default.disable_ipv6=1");
    m_router.shell(kRouterSettings);
    addVlans({{10, "a", 1500},
              {20, "b", 1400},
              {30, "c", 1500},
              {80, kFenceHost, 1500},
              {90, kFenceEnd, kFenceEndMtu}});
}

void Site::addVlans(const std::vector<NewVlan>& vlans) const {
    std::string links;  // which cut merged packets, so that the hosts receive what a wire carries
    std::string hosts;
    std::string addresses;
    for (const auto& [vlan, host, mtu] : vlans) {
        const std::string interface = "bcm0." + std::to_string(vlan);
        const std::string at = " dev " + interface + "\n";
        links += "link add " + interface + " mtu " + std::to_string(mtu) +
                 " gso_max_segs 1 address " + macText(vlan, "01") + " type veth peer name " + host +
                 " netns " + m_hosts.name() + " mtu 65535 address " + macText(vlan, "02") + "\n";
        hosts += "link set up dev " + host + "\n";
        addresses += "link set up" + at + "addr add " + addressOf(true, vlan, "1") + "/24" + at +
                     "addr add " + addressOf(false, vlan, "1") + "/64 nodad" + at;
        for (int i = 2; i < 60; ++i)
            for (const bool isIpv4 : {true, false})
                if (i < 10 || i >= 50)
                    addresses += "neigh add " + addressOf(isIpv4, vlan, std::to_string(i)) +
                                 " lladdr " + macText(vlan, "02") + at;
    }
    m_router.ip(links);
    m_hosts.ip(hosts);
    m_router.ip(addresses);
}

void Site::addPort(const std::string& bridge, const std::string& host,
                   const std::string& mac) const {
    const std::string port = "port-" + host;
    m_router.ip("link add " + port + " type veth peer name " + host + " netns " + m_hosts.name() +
                " mtu 65535 address " + mac + "\nlink set dev " + port + " master " + bridge);
    m_hosts.ip("link set dev " + host + " up");
    m_router.ip("link set dev " + port + " up");
}

void Site::open() {
    if (m_socket.valid()) return drain();
    m_router.awaitLinks();
    m_hosts.awaitLinks();
    m_hosts.run([this] {
        m_socket.reset(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        const int fd = m_socket.get();
        constexpr int kYes = 1;
        constexpr int kRoom = 256 << 20;
        sockaddr_ll any{};
        any.sll_family = AF_PACKET;
        any.sll_protocol = htons(ETH_P_ALL);
        check(setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &kYes, sizeof kYes) == 0 &&
                  setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &kYes, sizeof kYes) == 0 &&
                  setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0 &&
                  bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0,
              "packet socket");
        struct if_nameindex* const all = if_nameindex();
        check(all != nullptr, "interfaces");
        for (const auto* one = all; one->if_index != 0; ++one) {
            m_names[static_cast<int>(one->if_index)] = one->if_name;
            m_indexes[one->if_name] = static_cast<int>(one->if_index);
        }
        if_freenameindex(all);
    });
}

void Site::send(const std::string& host, const Bytes& frame, const Offload& offload) {
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = m_indexes.at(host);
    link.sll_halen = ETH_ALEN;
    Bytes all(sizeof offload);
    memcpy(all.data(), &offload, sizeof offload);
    all.insert(all.end(), frame.begin(), frame.end());
    check(sendto(m_socket.get(), all.data(), all.size(), 0,
                 reinterpret_cast<const sockaddr*>(&link), sizeof link) >= 0,
          "send from " + host);
}

bool Site::receive() {
    static std::array<uint8_t, 1 << 17> buffer;
    Offload offload{};
    sockaddr_ll from{};
    socklen_t size = sizeof from;
    const ssize_t length = recvfrom(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&from), &size);
    if (length < 0 && errno == EAGAIN) return false;
    check(length >= static_cast<ssize_t>(sizeof offload), "receive");
    memcpy(&offload, buffer.data(), sizeof offload);
    keep(from.sll_ifindex, {buffer.begin() + sizeof offload, buffer.begin() + length}, offload);
    return true;
}

void Site::keep(int interface, Bytes frame, const Offload& offload) {
    const std::string& host = m_names.at(interface);
    if (host == kFenceEnd || host == "lo") return;
    if (offload.type != Offload::kNone)
        throw std::runtime_error(host + " received a merged packet");
    addChecksum(frame, offload);
    const auto seen = observe(host, std::move(frame), ignored);
    if (seen && host != kFenceHost) m_seen.push_back(*seen);
    if (seen && host == kFenceHost && seen->isTooBig) m_answeredFence = seen->serial;
}

void Site::drain() {
    while (receive()) continue;
    tpacket_stats statistics{};
    socklen_t size = sizeof statistics;
    check(getsockopt(m_socket.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size) == 0,
          "statistics");
    if (statistics.tp_drops != 0) throw std::runtime_error("the capture lost frames");
}

void Site::fence(bool isIpv6) {
    m_fence = m_fence % 0xffff + 1;
    const std::string from = addressOf(!isIpv6, vlanOf(kFenceHost), "2");
    const std::string to = addressOf(!isIpv6, vlanOf(kFenceEnd), "2");
    const Bytes packet =
        isIpv6 ? bytesOf(Ipv6{.size = kFenceSize, .from = from, .to = to, .flowLabel = m_fence})
               : bytesOf(Ipv4{.size = kFenceSize,
                              .from = from,
                              .to = to,
                              .id = static_cast<uint16_t>(m_fence)});
    send(kFenceHost, packets::frameOf(packet, hostMac(kFenceHost), routerMac(kFenceHost)), {});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
    for (drain(); m_answeredFence != m_fence; drain()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(m_router.name() + ": timed out waiting for a fence's answer");
        pollfd readable{m_socket.get(), POLLIN, 0};
        poll(&readable, 1, 1000);
    }
}

void Twins::both(const std::function<void(Site&)>& action) {
    action(m_plain);
    action(m_served);
}

void Twins::sendPacket(const Bytes& packet, const Offload& offload, uint32_t serial,
                       const How& how) {
    const Mac to = how.to == Mac{} ? routerMac(how.from) : how.to;
    sendFrame(packets::frameOf(packet, hostMac(how.from), to), serial, how);
    m_steps.back().offload = offload;
}

void Twins::send(Ipv4 packet, const How& how) {
    if (packet.id == 0) packet.id = static_cast<uint16_t>(++m_serial);
    sendPacket(bytesOf(packet), {}, packet.id, how);
}

void Twins::send(Ipv6 packet, const How& how) {
    if (packet.flowLabel == 0) packet.flowLabel = ++m_serial;
    sendPacket(bytesOf(packet), {}, packet.flowLabel, how);
}

void Twins::send(Merged merged, const How& how) {
    merged.id = static_cast<uint16_t>(++m_serial);
    m_serial += 100;  // the numbers of the segments
    sendPacket(bytesOf(merged), offloadOf(merged), merged.id, how);
}

void Twins::sendFrame(const Bytes& frame, uint32_t serial, const How& how) {
    m_steps.push_back({how.from, frame, {}, ""});
    if (how.tellsNobodyIfMute) m_toldByKernelOnly.insert(serial);
}

void Twins::meanwhile(const std::string& command) { m_steps.push_back({"", {}, {}, command}); }

void Twins::feed(bool isMute) {
    const auto fence = [this](Site& site) { site.fence(m_fenceByIpv6); };
    size_t unfenced = 0;
    for (const Step& step : m_steps) {
        if (!step.command.empty()) {
            both(fence);
            both([&](Site& site) { site.router().shell(step.command); });
            if (isMute) m_served.router().nft(kMuteHardware);
            continue;
        }
        both([&](Site& site) { site.send(step.host, step.frame, step.offload); });
        if (++unfenced % kAtOnce == 0) both([](Site& site) { site.drain(); });
    }
    both(fence);
}

namespace {

std::vector<std::string> sortedTexts(const std::vector<Observation>& all) {
    std::vector<std::string> texts;
    for (const Observation& seen : all) texts.push_back(seen.text);
    std::sort(texts.begin(), texts.end());
    return texts;
}

// The elements of the sorted `one` that the sorted `other` lacks.
void addMissing(const std::string& title, const std::vector<std::string>& one,
                const std::vector<std::string>& other, std::vector<std::string>& lines) {
    std::vector<std::string> missing;
    std::set_difference(one.begin(), one.end(), other.begin(), other.end(),
                        std::back_inserter(missing));
    for (const std::string& text : missing) lines.push_back(title + text);
}

}  // namespace

// By the daemon's own counters: one per VLAN, and one of the answers.
void Twins::count(Comparison& result) const {
    std::istringstream words(
        m_served.router().shell("nft list counters table inet pmtud | tr -d '{}'"));
    std::string name;
    for (std::string word; words >> word;) {
        if (word == "counter") words >> name;
        uint64_t packets = 0;
        if (word == "packets" && words >> packets)
            (name == "answers" ? result.answers : result.withdrawn) += packets;
    }
}

Comparison Twins::compare(bool isMute) {
    if (isMute) m_served.router().nft(kMuteHardware);
    both([](Site& site) { site.open(); });
    const Mailbox log("/dev/log");
    Comparison result;
    result.sent = m_steps.size();
    std::vector<std::string>& lines = result.differences;
    {
        const Daemon daemon(theRun.daemon, m_served.router(), theRun.daemonProcessor);
        feed(isMute);
        count(result);
        if (!daemon.isRunning()) lines.emplace_back("the daemon has ended");
    }
    if (isMute) m_served.router().nft("delete table inet hardware");

    std::vector<Observation> seen = m_plain.take();
    for (const Observation& one : seen) (one.isTooBig ? result.told : result.forwarded) += 1;
    if (isMute)
        std::erase_if(seen, [this](const Observation& one) {
            return one.isTooBig && m_toldByKernelOnly.contains(one.serial);
        });
    const std::vector<std::string> plain = sortedTexts(seen);
    const std::vector<std::string> served = sortedTexts(m_served.take());
    addMissing("only without the daemon: ", plain, served, lines);
    addMissing("only with the daemon: ", served, plain, lines);
    if (lines.empty()) return result;
    for (const std::string& line : log.take())
        if (line.find("PMTUD-Linux: ") != line.npos) lines.push_back("the daemon's log: " + line);
    return result;
}

}  // namespace twin
