// SPDX-License-Identifier: MIT
// Sends oversized packets from the lab's host A and times the answers.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
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

constexpr char kUsage[] =
    "usage: pmtud_flood 4|6 MAC latency COUNT PACKETS_PER_SECOND\n"
    "       pmtud_flood 4|6 MAC flood SECONDS [PACKETS_PER_SECOND]\n"
    "       pmtud_flood 4|6 MAC await MTU SECONDS COMMAND [ARGUMENT...]\n"
    "Run on host A of the lab or beside it; MAC is that of the switch's interface. Sends UDP\n"
    "packets of 1,500 bytes that may not be fragmented to host B, no two alike, and reads the\n"
    "ICMP errors that come back:\n"
    "  latency   one packet after the other, each when its time has come and the one before is\n"
    "            answered\n"
    "  flood     as many as go, or that many per second, and then waits until no answer comes\n"
    "  await     starts the command, and sends until an answer names the MTU\n"
    "Prints one JSON object: sent, answered, seconds (null if await timed out), and for\n"
    "latency median_ns and p99_ns; by_pmtud counts the answers that the daemon sent.\n";

void check(bool good, const char* what) {
    if (!good) throw std::system_error(errno, std::generic_category(), what);
}

ether_addr addressOf(const std::string& text) {
    ether_addr address{};
    if (ether_aton_r(text.c_str(), &address) == nullptr)
        throw std::runtime_error("no Ethernet address: " + text);
    return address;
}

// The interface's first address that is not link-local, in network byte order.
std::vector<uint8_t> ownIpAddress(int family) {
    ifaddrs* list = nullptr;
    check(getifaddrs(&list) == 0, "addresses");
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (strcmp(entry->ifa_name, "eth0") != 0 || entry->ifa_addr == nullptr) continue;
        if (family == 4 && entry->ifa_addr->sa_family == AF_INET) {
            const auto* const found = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            const auto* const bytes = reinterpret_cast<const uint8_t*>(&found->sin_addr);
            return {bytes, bytes + sizeof found->sin_addr};
        }
        if (family == 6 && entry->ifa_addr->sa_family == AF_INET6) {
            const auto* const found = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
            if (IN6_IS_ADDR_LINKLOCAL(&found->sin6_addr)) continue;
            const uint8_t* const bytes = found->sin6_addr.s6_addr;
            return {bytes, bytes + sizeof found->sin6_addr};
        }
    }
    throw std::runtime_error("eth0 has no address of that family");
}

uint16_t foldedSum(const uint8_t* bytes, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

/// The packet's Ethernet frame; its number follows the UDP header.
class Packet {
 public:
    Packet(int family, const ether_addr& from, const ether_addr& to) {
        std::copy_n(to.ether_addr_octet, 6, m_frame.begin());
        std::copy_n(from.ether_addr_octet, 6, m_frame.begin() + 6);
        if (family == 4) {
            fillIpv4();
        } else {
            fillIpv6();
        }
    }

    /// The number is in the payload; its low bits are also in the UDP source port and the IPv4
    /// identification.
    void number(uint64_t value) {
        memcpy(&m_frame[m_numberAt], &value, sizeof value);
        const std::array<uint8_t, 2> low = {static_cast<uint8_t>(value >> 8),
                                            static_cast<uint8_t>(value)};
        std::copy(low.begin(), low.end(), m_frame.begin() + m_numberAt - kUdpHeader);
        if (m_frame[12] == 0x86) return;
        std::copy(low.begin(), low.end(), m_frame.begin() + kIp + 4);
        sealIpv4();
    }

    iovec bytes() { return {m_frame.data(), m_frame.size()}; }

 private:
    static constexpr size_t kIp = ETH_HLEN;
    static constexpr size_t kUdpHeader = 8;

    void fillIpv4() {
        constexpr std::array<uint8_t, 20> kHeader = {0x45,
                                                     0,
                                                     kPacketSize >> 8,
                                                     kPacketSize & 0xFF,
                                                     0,
                                                     0,
                                                     0x40,
                                                     0,
                                                     64,
                                                     IPPROTO_UDP,
                                                     0,
                                                     0,
                                                     10,
                                                     0,
                                                     10,
                                                     2,
                                                     10,
                                                     0,
                                                     20,
                                                     2};
        m_frame[12] = 0x08;
        std::copy(kHeader.begin(), kHeader.end(), m_frame.begin() + kIp);
        const std::vector<uint8_t> source = ownIpAddress(4);
        std::copy(source.begin(), source.end(), m_frame.begin() + kIp + 12);
        fillUdp(kIp + kHeader.size());
    }

    void sealIpv4() {
        m_frame[kIp + 10] = m_frame[kIp + 11] = 0;
        const uint16_t sum = foldedSum(&m_frame[kIp], 20);
        m_frame[kIp + 10] = static_cast<uint8_t>(sum >> 8);
        m_frame[kIp + 11] = static_cast<uint8_t>(sum);
    }

    void fillIpv6() {
        constexpr size_t kHeaderSize = 40;
        constexpr size_t kPayload = kPacketSize - kHeaderSize;
        const std::array<uint8_t, 8> start = {0x60,        0, 0, 0, kPayload >> 8, kPayload & 0xFF,
                                              IPPROTO_UDP, 64};
        m_frame[12] = 0x86;
        m_frame[13] = 0xDD;
        std::copy(start.begin(), start.end(), m_frame.begin() + kIp);
        const std::vector<uint8_t> source = ownIpAddress(6);
        std::copy(source.begin(), source.end(), m_frame.begin() + kIp + 8);
        inet_pton(AF_INET6, "2001:db8:20::2", &m_frame[kIp + 24]);
        fillUdp(kIp + kHeaderSize);
    }

    void fillUdp(size_t at) {
        const size_t length = kIp + kPacketSize - at;
        m_frame[at] = m_frame[at + 2] = 0x9C;
        m_frame[at + 4] = static_cast<uint8_t>(length >> 8);
        m_frame[at + 5] = static_cast<uint8_t>(length);
        m_numberAt = at + kUdpHeader;
    }

    std::array<uint8_t, kIp + kPacketSize> m_frame{};
    size_t m_numberAt = 0;
};

class Sender {
 public:
    Sender(int family, const ether_addr& to) : m_packets(kBatch, Packet(family, ownAddress(), to)) {
        m_socket = socket(AF_PACKET, SOCK_RAW, 0);
        check(m_socket >= 0, "packet socket");
        m_to.sll_family = AF_PACKET;
        m_to.sll_ifindex = static_cast<int>(if_nametoindex("eth0"));
        m_to.sll_halen = ETH_ALEN;
    }

    /// Numbers and sends `count` packets, at most a batch.
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
    static ether_addr ownAddress() {
        std::ifstream file("/sys/class/net/eth0/address");
        std::string text;
        file >> text;
        return addressOf(text);
    }

    int m_socket = -1;
    sockaddr_ll m_to{};
    std::vector<Packet> m_packets;
};

class Answers {
 public:
    explicit Answers(int family) : m_family(family) {
        m_socket = family == 4 ? socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)
                               : socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
        check(m_socket >= 0, "raw socket");
        constexpr int kRoom = 64 << 20;
        check(setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &kRoom, sizeof kRoom) == 0,
              "receive buffer");
    }

    /// Waits for answers and passes on each one's number, its MTU, and whether the daemon sent it.
    /// False: none arrived in that time.
    template <typename Take>
    bool read(milliseconds wait, Take take) {
        pollfd readable{m_socket, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return false;
        std::array<iovec, kBatch> pieces;
        std::array<mmsghdr, kBatch> messages{};
        for (size_t i = 0; i < kBatch; ++i) {
            pieces[i] = {m_buffers[i].data(), m_buffers[i].size()};
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int count = recvmmsg(m_socket, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        for (int i = 0; i < count; ++i) {
            const auto index = static_cast<size_t>(i);
            uint64_t number = 0;
            if (numberOf(m_buffers[index].data(), messages[index].msg_len, number))
                take(number, mtuOf(m_buffers[index].data()),
                     isByDaemon(m_buffers[index].data(), messages[index].msg_len));
        }
        return true;
    }

 private:
    bool numberOf(const uint8_t* bytes, size_t size, uint64_t& number) const {
        const size_t icmp = m_family == 4 ? size_t{20} : 0;
        const size_t at = icmp + 8 + (m_family == 4 ? 20 : 40) + 8;
        if (size < at + sizeof number) return false;
        const bool isAnswer =
            m_family == 4 ? bytes[icmp] == ICMP_DEST_UNREACH && bytes[icmp + 1] == ICMP_FRAG_NEEDED
                          : bytes[icmp] == ICMP6_PACKET_TOO_BIG;
        if (!isAnswer) return false;
        memcpy(&number, bytes + at, sizeof number);
        return true;
    }

    uint32_t mtuOf(const uint8_t* bytes) const {
        const uint8_t* const field = bytes + (m_family == 4 ? 20 + 4 : 4);
        return static_cast<uint32_t>(field[0]) << 24 | static_cast<uint32_t>(field[1] << 16) |
               static_cast<uint32_t>(field[2] << 8) | field[3];
    }

    // The kernel's answers are 576 bytes (IPv4) and 1,280 bytes (IPv6) long, including their IP
    // header.
    bool isByDaemon(const uint8_t* bytes, size_t size) const {
        return size == (m_family == 4 ? 88 : mtuOf(bytes));
    }

    int m_family;
    int m_socket = -1;
    std::array<std::array<uint8_t, 1600>, kBatch> m_buffers;
};

void latency(Sender& sender, Answers& answers, uint64_t count, double rate) {
    std::vector<int64_t> times;
    times.reserve(count);
    const Clock::time_point start = Clock::now();
    uint64_t byDaemon = 0;
    for (uint64_t i = 0; i < count; ++i) {
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                  duration<double>(double(i) / rate)));
        bool answered = false;
        const Clock::time_point sent = Clock::now();
        sender.send(i, 1);
        const auto take = [&](uint64_t number, uint32_t, bool isByDaemon) {
            answered |= number == i;
            if (isByDaemon) ++byDaemon;
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
        count, times.size(), byDaemon, duration<double>(Clock::now() - start).count(), at(0.5),
        at(0.99));
}

void flood(Sender& sender, Answers& answers, double seconds, double rate) {
    uint64_t answered = 0;
    uint64_t byDaemon = 0;
    std::atomic<bool> sending = true;
    Clock::time_point last = Clock::now();
    std::thread reader([&] {
        const auto take = [&](uint64_t, uint32_t, bool isByDaemon) {
            ++answered;
            if (isByDaemon) ++byDaemon;
        };
        while (true) {
            if (answers.read(milliseconds(500), take)) {
                last = Clock::now();
            } else if (!sending) {
                return;
            }
        }
    });
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        start + std::chrono::duration_cast<Clock::duration>(duration<double>(seconds));
    uint64_t sent = 0;
    const size_t atOnce = rate > 0 ? 8 : kBatch;
    while (Clock::now() < end) {
        sender.send(sent, atOnce);
        sent += atOnce;
        if (rate > 0) {
            std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                      duration<double>(double(sent) / rate)));
        }
    }
    sending = false;
    reader.join();
    printf("{\"sent\":%lu,\"answered\":%lu,\"by_pmtud\":%lu,\"seconds\":%.3f}\n", sent, answered,
           byDaemon, duration<double>(last - start).count());
}

/// Does not wait for the command, which may outlive this process.
void start(const std::vector<std::string>& command) {
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    // A reader of this program's output must not have to wait for the command to end.
    posix_spawn_file_actions_t output;
    posix_spawn_file_actions_init(&output);
    posix_spawn_file_actions_addopen(&output, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&output, STDOUT_FILENO, STDERR_FILENO);
    pid_t child = 0;
    const int error = posix_spawnp(&child, words[0], &output, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&output);
    if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
}

void await(Sender& sender, Answers& answers, uint32_t mtu, double seconds,
           const std::vector<std::string>& command) {
    uint64_t sent = 0;
    uint64_t answered = 0;
    bool seen = false;
    const Clock::time_point begin = Clock::now();
    start(command);
    while (!seen && duration<double>(Clock::now() - begin).count() < seconds) {
        sender.send(sent++, 1);
        answers.read(milliseconds(1), [&](uint64_t, uint32_t named, bool) {
            ++answered;
            seen |= named == mtu;
        });
    }
    const double took = duration<double>(Clock::now() - begin).count();
    printf("{\"sent\":%lu,\"answered\":%lu,\"seconds\":%s}\n", sent, answered,
           seen ? std::to_string(took).c_str() : "null");
}

int run(const std::vector<std::string>& words) {
    if (words.size() < 4) {
        fputs(kUsage, stderr);
        return 2;
    }
    const int family = std::stoi(words[0]);
    const ether_addr to = addressOf(words[1]);
    Sender sender(family, to);
    Answers answers(family);
    if (words[2] == "latency" && words.size() > 4) {
        latency(sender, answers, std::stoull(words[3]), std::stod(words[4]));
    } else if (words[2] == "await" && words.size() > 5) {
        await(sender, answers, static_cast<uint32_t>(std::stoul(words[3])), std::stod(words[4]),
              {words.begin() + 5, words.end()});
    } else {
        flood(sender, answers, std::stod(words[3]), words.size() > 4 ? std::stod(words[4]) : 0);
    }
    return 0;
}

}  // namespace

int main(int count, char** words) {
    try {
        return run({words + 1, words + count});
    } catch (const std::exception& error) {
        fprintf(stderr, "pmtud_flood: %s\n", error.what());
        return 1;
    }
}
