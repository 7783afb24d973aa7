// SPDX-License-Identifier: MIT
// Sends oversized packets from the lab's hosts, and counts and times the answers to each.
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "bytes.h"
#include "check.h"
#include "packet.h"

namespace {

using Clock = std::chrono::steady_clock;
using machine::check;
using packets::Bytes;
using packets::get32;
using packets::put16;
using std::chrono::duration;
using std::chrono::milliseconds;

constexpr size_t kBatch = 32;
constexpr uint32_t kMtu = 1400;

constexpr char kUsage[] =
    "usage: pmtud_load MAC 4|6 one COUNT MILLISECONDS HOST\n"
    "       pmtud_load MAC 4|6 rate PACKETS_PER_SECOND SECONDS PID HOST...\n"
    "       pmtud_load MAC 4|6 flood SECONDS PID HONEST HOST...\n"
    "       pmtud_load MAC 4|6 await MTU SECONDS HOST COMMAND [ARGUMENT...]\n"
    "Sends UDP packets of 1,500 bytes that may not be fragmented, no two alike, to host 2 of\n"
    "VLAN 20. HOST is INTERFACE:VLAN: out of that interface, from host 2 of that VLAN. MAC is\n"
    "the address of the switch's interfaces.\n"
    "  one     one packet after another, each that long after the previous answer\n"
    "  rate    that many per second in all, evenly, from each host in turn\n"
    "  flood   as many as possible, and one packet every 10 ms from the host HONEST (0: none)\n"
    "  await   starts the command, and sends until an answer names that MTU\n"
    "Prints one JSON object: what was sent and answered, counting each packet once; by_pmtud, the\n"
    "answers that the daemon sent; duplicates; seconds to the last answer, null if await timed\n"
    "out; process_ns, the processor time of the process PID meanwhile (PID 0: none); sender_ns,\n"
    "that of sending, in which the kernel also forwards, refuses and answers; median_ns and\n"
    "p99_ns for one; honest_sent and honest_answered for flood. Fails if an answer is wrong or\n"
    "was missed.\n";

struct Host {
    explicit Host(const std::string& text)
        : interface(text.substr(0, text.find(':'))), vlan(text.substr(text.find(':') + 1)) {}

    std::string interface;
    std::string vlan;
};

struct Path {
    int family;
    packets::Mac gateway;
};

/// The packet's Ethernet frame. The packet's number follows the UDP header, and also changes the
/// IPv4 identification or the UDP checksum, so that no two headers are equal, as with most senders.
class Packet {
 public:
    Packet(const Path& path, const Host& host) : m_isIpv4(path.family == 4) {
        const Bytes packet = m_isIpv4
                                 ? bytesOf(packets::Ipv4{.from = "10.0." + host.vlan + ".2"})
                                 : bytesOf(packets::Ipv6{.from = "2001:db8:" + host.vlan + "::2"});
        m_frame = packets::frameOf(packet, {2, 0, 0, 0, 1, 2}, path.gateway);
    }

    void number(uint64_t value) {
        uint8_t* const ip = &m_frame[ETH_HLEN];
        uint8_t* const udp = ip + (m_isIpv4 ? 20 : 40);
        memcpy(udp + 8, &value, sizeof value);
        put16(m_isIpv4 ? ip + 4 : udp + 6, value & 0xFFFF);
        if (m_isIpv4) packets::seal(ip);
    }

    iovec bytes() { return {m_frame.data(), m_frame.size()}; }

 private:
    bool m_isIpv4;
    Bytes m_frame;
};

class Sender {
 public:
    Sender(const Path& path, const Host& host) : m_packets(kBatch, Packet(path, host)) {
        m_socket = socket(AF_PACKET, SOCK_RAW, 0);
        check(m_socket >= 0, "packet socket");
        m_to.sll_family = AF_PACKET;
        m_to.sll_ifindex = static_cast<int>(if_nametoindex(host.interface.c_str()));
        check(m_to.sll_ifindex != 0, "interface");
        m_to.sll_halen = ETH_ALEN;
    }

    /// Numbers and sends `count` packets, at most a batch. Sends packets again if the link had no
    /// room for them.
    void send(uint64_t first, size_t count) {
        std::array<iovec, kBatch> pieces;
        std::array<mmsghdr, kBatch> messages{};
        for (size_t i = 0; i < count; ++i) {
            m_packets[i].number(first + i);
            pieces[i] = m_packets[i].bytes();
            messages[i].msg_hdr = {&m_to, sizeof m_to, &pieces[i], 1, nullptr, 0, 0};
        }
        for (size_t done = 0; done < count;) {
            const int sent =
                sendmmsg(m_socket, &messages[done], static_cast<unsigned>(count - done), 0);
            check(sent > 0 || errno == ENOBUFS, "sending");
            if (sent > 0) done += static_cast<size_t>(sent);
        }
    }

 private:
    int m_socket = -1;
    sockaddr_ll m_to{};
    std::vector<Packet> m_packets;
};

struct Answer {
    uint64_t number = 0;  ///< of the packet that it answers
    uint32_t mtu = 0;
    bool isByDaemon = false;
};

/// The start of each answer that arrives on any interface, in a ring shared with the kernel: a
/// flood's answers would overflow any receive buffer.
class Answers {
 public:
    explicit Answers(int family) : m_isIpv4(family == 4) {
        m_socket = socket(AF_PACKET, SOCK_RAW, htons(family == 4 ? ETH_P_IP : ETH_P_IPV6));
        check(m_socket >= 0, "packet socket");
        constexpr int kVersion = TPACKET_V2;
        constexpr int kYes = 1;
        const tpacket_req request{kBlock, kFrames / (kBlock / kFrame), kFrame, kFrames};
        check(
            setsockopt(m_socket, SOL_PACKET, PACKET_IGNORE_OUTGOING, &kYes, sizeof kYes) == 0 &&
                setsockopt(m_socket, SOL_PACKET, PACKET_VERSION, &kVersion, sizeof kVersion) == 0 &&
                setsockopt(m_socket, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) == 0,
            "receive ring");
        void* const ring = mmap(nullptr, size_t{kFrame} * kFrames, PROT_READ | PROT_WRITE,
                                MAP_SHARED, m_socket, 0);
        check(ring != MAP_FAILED, "mapping the receive ring");
        m_ring = static_cast<uint8_t*>(ring);
    }

    /// Waits for answers and passes each to `take`. False: none arrived in that time.
    template <typename Take>
    bool read(milliseconds wait, Take take) {
        pollfd readable{m_socket, POLLIN, 0};
        if (!isFilled() && poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return false;
        while (isFilled()) {
            tpacket2_hdr& header = *current();
            Answer answer;
            if (isAnswer(m_ring + size_t{m_next} * kFrame + header.tp_net, header, answer))
                take(answer);
            __atomic_store_n(&header.tp_status, uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
            m_next = (m_next + 1) % kFrames;
        }
        return true;
    }

    void checkNoneMissed() const {
        tpacket_stats stats{};
        socklen_t size = sizeof stats;
        check(getsockopt(m_socket, SOL_PACKET, PACKET_STATISTICS, &stats, &size) == 0,
              "statistics");
        if (stats.tp_drops != 0)
            throw std::runtime_error(std::to_string(stats.tp_drops) + " answers were missed");
    }

 private:
    static constexpr unsigned kFrame = 256;
    static constexpr unsigned kBlock = 1 << 16;
    static constexpr unsigned kFrames = 1 << 18;

    tpacket2_hdr* current() const {
        return reinterpret_cast<tpacket2_hdr*>(m_ring + size_t{m_next} * kFrame);
    }

    bool isFilled() const {
        return (__atomic_load_n(&current()->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
    }

    // ICMP's MTU field is the lower half of ICMPv6's. The length shows who sent an answer: the
    // kernel's have 576 and 1,280 bytes, the daemon's 88, and the MTU plus the IPv6 header.
    bool isAnswer(const uint8_t* ip, const tpacket2_hdr& frame, Answer& answer) const {
        const size_t header = m_isIpv4 ? 20 : 40;
        const size_t numberAt = header + 8 + header + 8;
        if (frame.tp_snaplen < ETH_HLEN + numberAt + sizeof answer.number) return false;
        const uint8_t* const icmp = ip + header;
        const bool isIcmp = m_isIpv4 ? ip[9] == IPPROTO_ICMP : ip[6] == IPPROTO_ICMPV6;
        const bool isTooBig = m_isIpv4 ? icmp[0] == 3 && icmp[1] == 4 : icmp[0] == 2;
        if (!isIcmp || !isTooBig) return false;
        memcpy(&answer.number, ip + numberAt, sizeof answer.number);
        answer.mtu = get32(icmp + 4);
        answer.isByDaemon = frame.tp_len - ETH_HLEN == (m_isIpv4 ? 88 : 40 + answer.mtu);
        return true;
    }

    bool m_isIpv4;
    int m_socket = -1;
    uint8_t* m_ring = nullptr;
    unsigned m_next = 0;
};

/// Which of the packets numbered from 0 were answered.
class Tally {
 public:
    void take(const Answer& answer, uint64_t number) {
        if (answer.mtu != kMtu) throw std::runtime_error("an answer with a wrong MTU");
        if (number >= m_seen.size()) m_seen.resize(std::max<size_t>(number + 1, m_seen.size() * 2));
        if (m_seen[number])
            ++duplicates;
        else
            ++answered;
        if (answer.isByDaemon) ++byDaemon;
        m_seen[number] = true;
    }

    uint64_t answered = 0;
    uint64_t duplicates = 0;
    uint64_t byDaemon = 0;

 private:
    std::vector<bool> m_seen;
};

class Process {
 public:
    explicit Process(pid_t id) : m_id(id) {
        if (id != 0 && clock_getcpuclockid(id, &m_clock) != 0)
            throw std::runtime_error("no such process");
    }

    /// The processor time of all its threads, in user space and in the kernel.
    int64_t nanoseconds() const {
        timespec time{};
        if (m_id != 0) check(clock_gettime(m_clock, &time) == 0, "processor time");
        return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    }

 private:
    pid_t m_id;
    clockid_t m_clock{};
};

double secondsSince(Clock::time_point start, Clock::time_point end = Clock::now()) {
    return duration<double>(end - start).count();
}

void one(const Path& path, uint64_t count, milliseconds gap, const Host& host) {
    Answers answers(path.family);
    Sender sender(path, host);
    Tally tally;
    std::vector<int64_t> times;
    const Clock::time_point start = Clock::now();
    for (uint64_t i = 0; i < count; ++i) {
        std::this_thread::sleep_for(gap);
        bool answered = false;
        const Clock::time_point sent = Clock::now();
        sender.send(i, 1);
        const auto take = [&](const Answer& answer) {
            answered |= answer.number == i;
            tally.take(answer, answer.number);
        };
        while (!answered && answers.read(milliseconds(500), take)) {
        }
        if (answered) times.push_back((Clock::now() - sent).count());
    }
    std::sort(times.begin(), times.end());
    const auto at = [&](double share) {
        return times.empty() ? -1 : times[static_cast<size_t>(share * double(times.size() - 1))];
    };
    printf(
        "{\"sent\":%lu,\"answered\":%zu,\"by_pmtud\":%lu,\"seconds\":%.3f,\"median_ns\":%ld,"
        "\"p99_ns\":%ld}\n",
        count, times.size(), tally.byDaemon, secondsSince(start), at(0.5), at(0.99));
}

constexpr uint64_t kHonest = uint64_t{1} << 63;

/// Sends one packet every 10 ms while `going` is set.
uint64_t sendHonestly(const Path& path, const Host& host, const std::atomic<bool>& going) {
    Sender sender(path, host);
    uint64_t sent = 0;
    for (Clock::time_point next = Clock::now(); going; next += milliseconds(10)) {
        std::this_thread::sleep_until(next);
        sender.send(kHonest | sent++, 1);
    }
    return sent;
}

void load(const Path& path, double rate, double seconds, pid_t pid, const std::string& honest,
          const std::vector<Host>& hosts) {
    Answers answers(path.family);
    std::vector<Sender> senders;
    for (const Host& host : hosts) senders.emplace_back(path, host);
    const Process process(pid);
    Tally all;
    Tally honestOnes;
    std::atomic<bool> going = true;
    std::atomic<bool> reading = true;
    std::exception_ptr failure;
    const int64_t before = process.nanoseconds();
    const Clock::time_point start = Clock::now();
    Clock::time_point last = start;
    std::thread reader([&] {
        const auto take = [&](const Answer& answer) {
            const bool isHonest = (answer.number & kHonest) != 0;
            (isHonest ? honestOnes : all).take(answer, answer.number & ~kHonest);
        };
        try {
            while (true) {
                const bool isLastLook = !reading;
                if (answers.read(milliseconds(500), take)) {
                    last = Clock::now();
                } else if (isLastLook) {
                    return;
                }
            }
        } catch (...) {
            failure = std::current_exception();
        }
    });
    uint64_t honestSent = 0;
    std::thread other([&] {
        if (honest != "0") honestSent = sendHonestly(path, Host(honest), going);
    });
    const auto lasting = [](double time) {
        return std::chrono::duration_cast<Clock::duration>(duration<double>(time));
    };
    uint64_t sent = 0;
    Clock::time_point next = start;
    for (size_t turn = 0; Clock::now() < start + lasting(seconds); ++turn) {
        const size_t atOnce = rate > 0 ? 1 : kBatch;
        senders[turn % senders.size()].send(sent, atOnce);
        sent += atOnce;
        if (rate == 0) continue;
        // Delays on a busy processor are not made up for, so that the rate is never exceeded.
        next = std::max(next + lasting(1 / rate), Clock::now() - milliseconds(2));
        std::this_thread::sleep_until(next);
    }
    timespec spent{};
    check(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent) == 0, "processor time");
    going = false;
    other.join();
    reading = false;
    reader.join();
    if (failure) std::rethrow_exception(failure);
    answers.checkNoneMissed();
    printf(
        "{\"sent\":%lu,\"answered\":%lu,\"by_pmtud\":%lu,\"duplicates\":%lu,\"seconds\":%.3f,"
        "\"process_ns\":%ld,\"sender_ns\":%ld,\"honest_sent\":%lu,\"honest_answered\":%lu}\n",
        sent, all.answered, all.byDaemon, all.duplicates + honestOnes.duplicates,
        secondsSince(start, last), process.nanoseconds() - before,
        int64_t{spent.tv_sec} * 1'000'000'000 + spent.tv_nsec, honestSent, honestOnes.answered);
}

/// The command continues after this program ends.
void start(const std::vector<std::string>& command) {
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    // Otherwise a reader of this program's output would wait for the command's end.
    posix_spawn_file_actions_t output;
    posix_spawn_file_actions_init(&output);
    posix_spawn_file_actions_addopen(&output, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&output, STDOUT_FILENO, STDERR_FILENO);
    pid_t child = 0;
    const int error = posix_spawnp(&child, words[0], &output, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&output);
    if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
}

void await(const Path& path, uint32_t mtu, double seconds, const Host& host,
           const std::vector<std::string>& command) {
    Answers answers(path.family);
    Sender sender(path, host);
    uint64_t sent = 0;
    uint64_t answered = 0;
    bool seen = false;
    const Clock::time_point begin = Clock::now();
    start(command);
    while (!seen && secondsSince(begin) < seconds) {
        sender.send(sent++, 1);
        answers.read(milliseconds(1), [&](const Answer& answer) {
            ++answered;
            seen |= answer.mtu == mtu;
        });
    }
    const double took = secondsSince(begin);
    printf("{\"sent\":%lu,\"answered\":%lu,\"seconds\":%s}\n", sent, answered,
           seen ? std::to_string(took).c_str() : "null");
}

int run(const std::vector<std::string>& words) {
    const auto word = [&](size_t i) { return i < words.size() ? words[i] : std::string(); };
    const std::string command = word(2);
    ether_addr gateway{};
    if (words.size() < 6 || ether_aton_r(words[0].c_str(), &gateway) == nullptr) {
        fputs(kUsage, word(0) == "--help" ? stdout : stderr);
        return word(0) == "--help" ? 0 : 2;
    }
    Path path{std::stoi(words[1]), {}};
    std::copy_n(gateway.ether_addr_octet, ETH_ALEN, path.gateway.begin());
    std::vector<Host> hosts;
    for (size_t i = 6; command != "await" && i < words.size(); ++i) hosts.emplace_back(words[i]);
    if (command == "one") {
        one(path, std::stoull(words[3]), milliseconds(std::stoi(words[4])), Host(words[5]));
    } else if (command == "rate" && !hosts.empty()) {
        load(path, std::stod(words[3]), std::stod(words[4]), std::stoi(words[5]), "0", hosts);
    } else if (command == "flood" && !hosts.empty()) {
        load(path, 0, std::stod(words[3]), std::stoi(words[4]), words[5], hosts);
    } else if (command == "await" && words.size() > 6) {
        await(path, static_cast<uint32_t>(std::stoul(words[3])), std::stod(words[4]),
              Host(words[5]), {words.begin() + 6, words.end()});
    } else {
        fputs(kUsage, stderr);
        return 2;
    }
    return 0;
}

}  // namespace

int main(int count, char** words) {
    try {
        return run({words + 1, words + count});
    } catch (const std::exception& error) {
        fprintf(stderr, "pmtud_load: %s\n", error.what());
        return 1;
    }
}
