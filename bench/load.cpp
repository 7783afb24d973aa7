// SPDX-License-Identifier: MIT
// Sends oversized packets from many VLANs, and counts and times the answers to each.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
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

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration;
using std::chrono::milliseconds;

constexpr size_t kPacketSize = 1500;
constexpr size_t kBatch = 32;
constexpr uint16_t kMtu = 1400;

constexpr char kUsage[] =
    "usage: pmtud_load 4|6 one COUNT MILLISECONDS VLAN\n"
    "       pmtud_load 4|6 rate PACKETS_PER_SECOND SECONDS PID VLAN...\n"
    "       pmtud_load 4|6 flood SECONDS PID HONEST VLAN...\n"
    "Sends UDP packets of 1,500 bytes that may not be fragmented from host 2 of each VLAN, out of\n"
    "its interface vVLAN, to host 2 of VLAN 20:\n"
    "  one     one packet after the other, so long after the answer to the one before\n"
    "  rate    that many a second in all, evenly, from one VLAN after the other\n"
    "  flood   as many as go, and one packet every 10 ms from the VLAN HONEST; 0: from none\n"
    "Prints one JSON object: what was sent and answered, counting each packet once; duplicates;\n"
    "seconds to the last answer; process_ns, the processor time of the process PID meanwhile;\n"
    "sender_ns, that of sending, in which the kernel also forwards, refuses and answers;\n"
    "median_ns for one; honest_sent and honest_answered for flood. Fails if an answer is wrong or\n"
    "was missed.\n";

void check(bool good, const char* what) {
    if (!good) throw std::system_error(errno, std::generic_category(), what);
}

uint16_t foldedSum(const uint8_t* bytes, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

/// The packet's Ethernet frame. Its number follows the UDP header, and makes every header
/// different, as with most senders: the IPv4 identification or the UDP checksum.
class Packet {
 public:
    Packet(int family, int vlan) : m_isIpv4(family == 4) {
        constexpr std::array<uint8_t, 12> kAddresses{2, 0, 0, 0, 1, 1, 2, 0, 0, 0, 1, 2};
        std::copy(kAddresses.begin(), kAddresses.end(), m_frame.begin());
        const size_t header = m_isIpv4 ? 20 : 40;
        const size_t payload = kPacketSize - header;
        uint8_t* const ip = &m_frame[ETH_HLEN];
        if (m_isIpv4) {
            m_frame[12] = 0x08;
            constexpr std::array<uint8_t, 10> kStart{
                0x45, 0, kPacketSize >> 8, kPacketSize & 0xFF, 0, 0, 0x40, 0, 64, IPPROTO_UDP};
            std::copy(kStart.begin(), kStart.end(), ip);
            put("10.0." + std::to_string(vlan) + ".2", ip + 12);
            put("10.0.20.2", ip + 16);
        } else {
            m_frame[12] = 0x86;
            m_frame[13] = 0xDD;
            ip[0] = 0x60;
            put16(ip + 4, payload);
            ip[6] = IPPROTO_UDP;
            ip[7] = 64;
            put("2001:db8:" + std::to_string(vlan) + "::2", ip + 8);
            put("2001:db8:20::2", ip + 24);
        }
        m_udp = ip + header - m_frame.data();
        m_frame[at(0)] = m_frame[at(2)] = 0x9C;
        put16(&m_frame[at(4)], payload);
    }

    void number(uint64_t value) {
        memcpy(&m_frame[at(8)], &value, sizeof value);
        if (!m_isIpv4) {
            put16(&m_frame[at(6)], value & 0xFFFF);
            return;
        }
        uint8_t* const ip = &m_frame[ETH_HLEN];
        put16(ip + 4, value & 0xFFFF);
        put16(ip + 10, 0);
        put16(ip + 10, foldedSum(ip, 20));
    }

    iovec bytes() { return {m_frame.data(), m_frame.size()}; }

 private:
    size_t at(size_t offset) const { return static_cast<size_t>(m_udp) + offset; }

    static void put16(uint8_t* to, size_t value) {
        to[0] = static_cast<uint8_t>(value >> 8);
        to[1] = static_cast<uint8_t>(value);
    }

    void put(const std::string& address, uint8_t* to) const {
        if (inet_pton(m_isIpv4 ? AF_INET : AF_INET6, address.c_str(), to) != 1)
            throw std::runtime_error("no address: " + address);
    }

    bool m_isIpv4;
    ptrdiff_t m_udp = 0;
    std::array<uint8_t, ETH_HLEN + kPacketSize> m_frame{};
};

class Sender {
 public:
    Sender(int family, int vlan) : m_packets(kBatch, Packet(family, vlan)) {
        m_socket = socket(AF_PACKET, SOCK_RAW, 0);
        check(m_socket >= 0, "packet socket");
        m_to.sll_family = AF_PACKET;
        m_to.sll_ifindex = static_cast<int>(if_nametoindex(("v" + std::to_string(vlan)).c_str()));
        check(m_to.sll_ifindex != 0, "interface");
        m_to.sll_halen = ETH_ALEN;
    }

    /// Numbers and sends `count` packets, at most one batch. Sends again what the link had no room
    /// for.
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

/// The answers that arrive on all interfaces: the start of each, in a ring shared with the kernel,
/// because no receive buffer can hold those of a flood.
class Answers {
 public:
    explicit Answers(int family) : m_family(family) {
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

    /// Waits for answers and passes on each one's number. False: none arrived in that time.
    template <typename Take>
    bool read(milliseconds wait, Take take) {
        pollfd readable{m_socket, POLLIN, 0};
        if (!isFilled() && poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return false;
        while (isFilled()) {
            tpacket2_hdr& header = *current();
            uint64_t number = 0;
            if (numberOf(m_ring + size_t{m_next} * kFrame + header.tp_net, header.tp_snaplen,
                         number))
                take(number);
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
    static constexpr unsigned kFrames = 1 << 19;

    tpacket2_hdr* current() const {
        return reinterpret_cast<tpacket2_hdr*>(m_ring + size_t{m_next} * kFrame);
    }

    bool isFilled() const {
        return (__atomic_load_n(&current()->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
    }

    // The MTU is in the same place in both: ICMP's field is the lower half of ICMPv6's.
    bool numberOf(const uint8_t* ip, size_t size, uint64_t& number) const {
        const size_t header = m_family == 4 ? 20 : 40;
        const size_t at = header + 8 + header + 8;
        if (size < ETH_HLEN + at + sizeof number) return false;
        const uint8_t* const icmp = ip + header;
        const bool isIcmp = m_family == 4 ? ip[9] == IPPROTO_ICMP : ip[6] == IPPROTO_ICMPV6;
        if (!isIcmp) return false;
        const std::array<uint8_t, 8> wanted{static_cast<uint8_t>(m_family == 4 ? 3 : 2),
                                            static_cast<uint8_t>(m_family == 4 ? 4 : 0),
                                            icmp[2],
                                            icmp[3],
                                            0,
                                            0,
                                            kMtu >> 8,
                                            kMtu & 0xFF};
        if (!std::equal(wanted.begin(), wanted.end(), icmp))
            throw std::runtime_error("an ICMP message that is not the answer");
        memcpy(&number, ip + at, sizeof number);
        return true;
    }

    int m_family;
    int m_socket = -1;
    uint8_t* m_ring = nullptr;
    unsigned m_next = 0;
};

/// Which of the packets numbered from 0 were answered.
class Tally {
 public:
    void take(uint64_t number) {
        if (number >= m_seen.size()) m_seen.resize(std::max<size_t>(number + 1, m_seen.size() * 2));
        if (m_seen[number]) {
            ++m_duplicates;
        } else {
            ++m_answered;
        }
        m_seen[number] = true;
    }

    uint64_t answered() const { return m_answered; }
    uint64_t duplicates() const { return m_duplicates; }

 private:
    std::vector<bool> m_seen;
    uint64_t m_answered = 0;
    uint64_t m_duplicates = 0;
};

class Process {
 public:
    explicit Process(pid_t id) : m_id(id) {
        if (id != 0 && clock_getcpuclockid(id, &m_clock) != 0)
            throw std::runtime_error("no such process");
    }

    /// The CPU time of all its threads, in user space and in the kernel.
    int64_t nanoseconds() const {
        timespec time{};
        if (m_id != 0) check(clock_gettime(m_clock, &time) == 0, "processor time");
        return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    }

 private:
    pid_t m_id;
    clockid_t m_clock{};
};

void one(int family, uint64_t count, milliseconds gap, int vlan) {
    Answers answers(family);
    Sender sender(family, vlan);
    std::vector<int64_t> times;
    for (uint64_t i = 0; i < count; ++i) {
        std::this_thread::sleep_for(gap);
        bool answered = false;
        const Clock::time_point sent = Clock::now();
        sender.send(i, 1);
        const auto take = [&](uint64_t number) { answered |= number == i; };
        while (!answered && answers.read(milliseconds(500), take)) {
        }
        if (answered) times.push_back((Clock::now() - sent).count());
    }
    std::sort(times.begin(), times.end());
    printf("{\"sent\":%lu,\"answered\":%zu,\"median_ns\":%ld}\n", count, times.size(),
           times.empty() ? -1 : times[times.size() / 2]);
}

constexpr uint64_t kHonest = uint64_t{1} << 63;

/// Sends a packet every 10 ms until it is stopped.
uint64_t sendHonestly(int family, int vlan, const std::atomic<bool>& going) {
    Sender sender(family, vlan);
    uint64_t sent = 0;
    for (Clock::time_point next = Clock::now(); going; next += milliseconds(10)) {
        std::this_thread::sleep_until(next);
        sender.send(kHonest | sent++, 1);
    }
    return sent;
}

void load(int family, double rate, double seconds, pid_t pid, int honest,
          const std::vector<int>& vlans) {
    Answers answers(family);
    std::vector<Sender> senders;
    for (const int vlan : vlans) senders.emplace_back(family, vlan);
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
        const auto take = [&](uint64_t number) {
            if ((number & kHonest) != 0) {
                honestOnes.take(number & ~kHonest);
            } else {
                all.take(number);
            }
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
        if (honest != 0) honestSent = sendHonestly(family, honest, going);
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
        // Delays caused by a busy CPU are not made up for: the rate is never exceeded.
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
        "{\"sent\":%lu,\"answered\":%lu,\"duplicates\":%lu,\"seconds\":%.3f,\"process_ns\":%ld,"
        "\"sender_ns\":%ld,\"honest_sent\":%lu,\"honest_answered\":%lu}\n",
        sent, all.answered(), all.duplicates() + honestOnes.duplicates(),
        duration<double>(last - start).count(), process.nanoseconds() - before,
        int64_t{spent.tv_sec} * 1'000'000'000 + spent.tv_nsec, honestSent, honestOnes.answered());
}

int run(const std::vector<std::string>& words) {
    if (words.size() < 5) {
        fputs(kUsage, stderr);
        return 2;
    }
    const int family = std::stoi(words[0]);
    std::vector<int> vlans;
    for (size_t i = 5; i < words.size(); ++i) vlans.push_back(std::stoi(words[i]));
    if (words[1] == "one") {
        one(family, std::stoull(words[2]), milliseconds(std::stoi(words[3])), std::stoi(words[4]));
    } else if (words[1] == "rate" && !vlans.empty()) {
        load(family, std::stod(words[2]), std::stod(words[3]), std::stoi(words[4]), 0, vlans);
    } else if (words[1] == "flood" && !vlans.empty()) {
        load(family, 0, std::stod(words[2]), std::stoi(words[3]), std::stoi(words[4]), vlans);
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
