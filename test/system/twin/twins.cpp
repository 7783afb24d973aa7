// SPDX-License-Identifier: MIT
// Two routers alike, one of them with the daemon, and the hosts around them.
#include "twins.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "bytes.h"

namespace twin {

namespace {

constexpr std::chrono::seconds kPatience(20);

// Fewer than the kernel queues per processor between two interfaces, 1,000.
constexpr size_t kAtOnce = 200;

constexpr char kFenceHost[] = "fence";
constexpr char kFenceEnd[] = "fence-end";
constexpr int kFenceVlan = 4000;
constexpr int kFenceEndVlan = 4001;
constexpr int kFenceMtu = 1280;
constexpr int kIpv6Mtu = 1280;  // RFC 8200 section 5: with less there is no IPv6
constexpr size_t kFenceSize = 1400;

void check(bool succeeded, const std::string& what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), what);
}

// VLAN 10 is 02:00:00:00:10:xx; the fences' VLANs do not fit.
std::string macText(int vlan, const char* end) {
    const int pair = vlan < 100 ? vlan : vlan - 4000;
    return std::string("02:00:00:") + (vlan < 100 ? "00:" : "ff:") + (pair < 10 ? "0" : "") +
           std::to_string(pair) + ":" + end;
}

Mac routerMac(const std::string& host) {
    if (host == kFenceHost) return {2, 0, 0, 0xff, 0, 1};
    const auto vlan = static_cast<uint8_t>((host[0] - 'a' + 1) * 0x10);
    return {2, 0, 0, 0, vlan, 1};
}

Mac hostMac(const std::string& host) {
    Mac mac = routerMac(host);
    mac[5] = 2;
    return mac;
}

std::string neighbours(int vlan, const std::string& interface, int mtu) {
    std::string batch;
    const std::string mac = macText(vlan, "02");
    const auto add = [&](const std::string& last) {
        for (const bool isIpv4 : {true, false})
            if (isIpv4 || mtu >= kIpv6Mtu)
                batch += "neigh add " + addressOf(isIpv4, vlan, last) + " lladdr " + mac + " dev " +
                         interface + "\n";
    };
    for (int i = 2; i < 10; ++i) add(std::to_string(i));
    for (int i = 50; i < 60; ++i) add(std::to_string(i));
    return batch;
}

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

// The fences' VLANs do not fit into an octet.
std::string addressOf(bool isIpv4, int vlan, const std::string& host) {
    if (!isIpv4) return "2001:db8:" + std::to_string(vlan) + "::" + host;
    return (vlan < 256 ? "10.0." + std::to_string(vlan) : "10.255." + std::to_string(vlan - 4000)) +
           "." + host;
}

Run prepareRun(const std::string& daemon) {
    Run run;
    run.daemon = daemon;
    cpu_set_t processors;
    check(sched_getaffinity(0, sizeof processors, &processors) == 0, "processors");
    run.ownProcessor = nextProcessor(processors, -1);
    const int second = nextProcessor(processors, run.ownProcessor);
    run.daemonProcessor = second >= 0 ? second : run.ownProcessor;
    CPU_ZERO(&processors);
    CPU_SET(run.ownProcessor, &processors);
    check(sched_setaffinity(0, sizeof processors, &processors) == 0, "processors");
    isolate();
    return run;
}

Site::Site(const std::string& name, const Mtus& mtus)
    : m_router(name + "-router"), m_hosts(name + "-hosts") {
    m_hosts.sysctl("ipv6/conf/default/disable_ipv6", "1");
    for (const char* const scope : {"all", "default"}) {
        const std::string conf4 = std::string("ipv4/conf/") + scope + "/";
        const std::string conf6 = std::string("ipv6/conf/") + scope + "/";
        m_router.sysctl(conf4 + "rp_filter", "0");
        m_router.sysctl(conf4 + "send_redirects", "0");
        m_router.sysctl(conf6 + "accept_dad", "0");
        m_router.sysctl(conf6 + "accept_ra", "0");
    }
    m_router.sysctl("ipv4/ip_forward", "1");
    m_router.sysctl("ipv6/conf/all/forwarding", "1");
    // The errors that the kernel limits are compared as well.
    m_router.sysctl("ipv4/icmp_ratelimit", "0");
    m_router.sysctl("ipv6/icmp/ratelimit", "0");
    m_router.sysctl("ipv4/icmp_msgs_per_sec", "1000000");
    m_router.sysctl("ipv4/icmp_msgs_burst", "1000000");
    addVlans({{10, "a", mtus.a},
              {20, "b", mtus.b},
              {30, "c", mtus.c},
              {kFenceVlan, kFenceHost, 1500},
              {kFenceEndVlan, kFenceEnd, kFenceMtu}});
}

void Site::addVlans(const std::vector<NewVlan>& vlans) const {
    std::string links;
    std::string hosts;
    std::string addresses;
    for (const auto& [vlan, host, mtu] : vlans) {
        const std::string interface = "bcm0." + std::to_string(vlan);
        const std::string at = " dev " + interface + "\n";
        links += "link add " + interface + " mtu " + std::to_string(mtu) + " address " +
                 macText(vlan, "01") + " type veth peer name " + host + " netns " + m_hosts.name() +
                 " mtu 65535 address " + macText(vlan, "02") + "\n";
        hosts += "link set up" + (" dev " + host) + "\n";
        addresses += "link set up" + at + "addr add " + addressOf(true, vlan, "1") + "/24" + at;
        if (mtu >= kIpv6Mtu)
            addresses += "addr add " + addressOf(false, vlan, "1") + "/64 nodad" + at;
        addresses += neighbours(vlan, interface, mtu);
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
        check(m_socket.valid(), "packet socket");
        constexpr int kYes = 1;
        constexpr int kRoom = 256 << 20;
        for (const int option : {PACKET_IGNORE_OUTGOING, PACKET_VNET_HDR})
            check(setsockopt(m_socket.get(), SOL_PACKET, option, &kYes, sizeof kYes) == 0,
                  "packet socket");
        check(setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0,
              "packet socket");
        sockaddr_ll any{};
        any.sll_family = AF_PACKET;
        any.sll_protocol = htons(ETH_P_ALL);
        check(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0,
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
    Offload header = offload;
    Bytes copy = frame;
    std::array<iovec, 2> pieces{{{&header, sizeof header}, {copy.data(), copy.size()}}};
    msghdr message{};
    message.msg_name = &link;
    message.msg_namelen = sizeof link;
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    check(sendmsg(m_socket.get(), &message, 0) >= 0, "send from " + host);
}

bool Site::receive() {
    static std::array<uint8_t, 1 << 17> buffer;
    Offload offload{};
    std::array<iovec, 2> pieces{{{&offload, sizeof offload}, {buffer.data(), buffer.size()}}};
    sockaddr_ll from{};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const ssize_t length = recvmsg(m_socket.get(), &message, MSG_DONTWAIT);
    if (length < 0 && errno == EAGAIN) return false;
    check(length >= static_cast<ssize_t>(sizeof offload), "receive");
    const auto size = static_cast<size_t>(length) - sizeof offload;
    keep(from.sll_ifindex, {buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(size)},
         offload);
    return true;
}

void Site::keep(int interface, const Bytes& frame, const Offload& offload) {
    const std::string& host = m_names.at(interface);
    if (host == kFenceEnd || host == "lo") return;
    for (const Bytes& segment : segmentsOf(frame, offload)) {
        const auto seen = observe(host, segment, ignored);
        if (!seen) continue;
        if (host != kFenceHost)
            m_seen.push_back(*seen);
        else if (seen->isTooBig)
            m_answeredFence = seen->serial;
    }
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
    const Bytes packet = isIpv6 ? bytesOf(Ipv6{.size = kFenceSize,
                                               .from = addressOf(false, kFenceVlan, "2"),
                                               .to = addressOf(false, kFenceEndVlan, "2"),
                                               .flowLabel = m_fence})
                                : bytesOf(Ipv4{.size = kFenceSize,
                                               .from = addressOf(true, kFenceVlan, "2"),
                                               .to = addressOf(true, kFenceEndVlan, "2"),
                                               .id = static_cast<uint16_t>(m_fence)});
    send(kFenceHost, packets::frameOf(packet, hostMac(kFenceHost), routerMac(kFenceHost)), {});
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (drain(); m_answeredFence != m_fence; drain()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(m_router.name() + ": timed out waiting for a fence's answer");
        pollfd readable{m_socket.get(), POLLIN, 0};
        poll(&readable, 1, 1000);
    }
}

Twins::Twins(Run run, const Mtus& mtus)
    : m_run(std::move(run)), m_plain("plain", mtus), m_served("served", mtus) {}

void Twins::both(const std::function<void(Site&)>& action) {
    action(m_plain);
    action(m_served);
}

void Twins::ip(const std::string& batch) {
    both([&](Site& site) { site.router().ip(batch); });
}

void Twins::nft(const std::string& rules) {
    both([&](Site& site) { site.router().nft(rules); });
}

void Twins::shell(const std::string& command) {
    both([&](Site& site) { site.router().shell(command); });
}

void Twins::sysctl(const std::string& name, const std::string& value) {
    both([&](Site& site) { site.router().sysctl(name, value); });
}

void Twins::addVlan(int vlan, const std::string& host, int mtu) {
    both([&](Site& site) { site.addVlans({{vlan, host, mtu}}); });
}

void Twins::addPort(const std::string& bridge, const std::string& host, const std::string& mac) {
    both([&](Site& site) { site.addPort(bridge, host, mac); });
}

void Twins::onHosts(const std::string& command) {
    both([&](Site& site) { site.hosts().shell(command); });
}

void Twins::ignoreAnswerSource() {
    both([](Site& site) { site.ignored.answerSource = true; });
}

void Twins::ignoreAnswerHost() {
    both([](Site& site) { site.ignored.answerHost = site.ignored.answerSource = true; });
}

uint32_t Twins::sendPacket(const Bytes& packet, const Offload& offload, uint32_t serial,
                           const How& how) {
    const Mac to = how.to == Mac{} ? routerMac(how.from) : how.to;
    m_steps.push_back({how.from, packets::frameOf(packet, hostMac(how.from), to), offload, ""});
    if (how.tellsNobodyIfMute) m_toldByKernelOnly.insert(serial);
    return serial;
}

uint32_t Twins::send(Ipv4 packet, const How& how) {
    if (packet.id == 0) packet.id = static_cast<uint16_t>(++m_serial);
    return sendPacket(bytesOf(packet), {}, packet.id, how);
}

uint32_t Twins::send(Ipv6 packet, const How& how) {
    if (packet.flowLabel == 0) packet.flowLabel = ++m_serial;
    return sendPacket(bytesOf(packet), {}, packet.flowLabel, how);
}

uint32_t Twins::send(Merged merged, const How& how) {
    merged.id = static_cast<uint16_t>(++m_serial);
    m_serial += 100;  // the numbers of the segments
    const Bytes packet = bytesOf(merged);
    return sendPacket(packet, offloadOf(merged, packet), merged.id, how);
}

void Twins::sendFrame(const Bytes& frame, uint32_t serial, const How& how) {
    m_steps.push_back({how.from, frame, {}, ""});
    if (how.tellsNobodyIfMute) m_toldByKernelOnly.insert(serial);
}

void Twins::meanwhile(const std::string& command) { m_steps.push_back({"", {}, {}, command}); }

void Twins::clear() {
    m_steps.clear();
    m_toldByKernelOnly.clear();
}

void Twins::feed(bool isMute) {
    const auto fence = [this](Site& site) { site.fence(m_fenceByIpv6); };
    size_t unfenced = 0;
    for (const Step& step : m_steps) {
        if (!step.command.empty()) {
            both(fence);
            shell(step.command);
            if (isMute) m_served.router().nft(kMuteHardware);
            continue;
        }
        both([&](Site& site) { site.send(step.host, step.frame, step.offload); });
        if (++unfenced % kAtOnce == 0) both([](Site& site) { site.drain(); });
    }
    both(fence);
}

namespace {

void sortByText(std::vector<Observation>& all) {
    std::sort(all.begin(), all.end(), [](const Observation& one, const Observation& other) {
        return one.text < other.text;
    });
}

// The elements of the sorted `one` that the sorted `other` lacks.
void addMissing(const std::vector<Observation>& one, const std::vector<Observation>& other,
                const std::string& title, std::vector<std::string>& lines) {
    auto at = other.begin();
    for (const Observation& seen : one) {
        while (at != other.end() && at->text < seen.text) ++at;
        if (at != other.end() && at->text == seen.text)
            ++at;
        else
            lines.push_back(title + seen.text);
    }
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
    SystemLog log;
    std::vector<std::string> lines;
    Comparison result;
    {
        const Daemon daemon(m_run.daemon, m_served.router(), m_run.daemonProcessor);
        feed(isMute);
        count(result);
        if (!daemon.isRunning()) lines.emplace_back("the daemon has ended");
    }
    if (isMute) m_served.router().nft("delete table inet hardware");
    std::vector<Observation> plain = m_plain.take();
    std::vector<Observation> served = m_served.take();

    result.sent = m_steps.size();
    for (const Observation& seen : plain) (seen.isTooBig ? result.told : result.forwarded) += 1;
    if (isMute)
        std::erase_if(plain, [this](const Observation& seen) {
            return seen.isTooBig && m_toldByKernelOnly.contains(seen.serial);
        });
    sortByText(plain);
    sortByText(served);
    addMissing(plain, served, "only without the daemon: ", lines);
    addMissing(served, plain, "only with the daemon: ", lines);
    if (!lines.empty())
        for (const std::string& line : log.lines()) lines.push_back("the daemon's log: " + line);
    result.differences = std::move(lines);
    return result;
}

}  // namespace twin
