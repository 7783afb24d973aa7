// SPDX-License-Identifier: MIT
// Plays a case: lines that prepare both routers, and the packets that both are fed.
#include "play.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace twin {

namespace {

constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmpv6 = 58;

std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, at);)
        if (!piece.empty()) pieces.push_back(piece);
    return pieces;
}

// "7.11.4.0*3": four bytes, the last of them three times.
Bytes bytesIn(const std::string& text) {
    Bytes bytes;
    for (const std::string& piece : split(text, '.')) {
        const size_t star = piece.find('*');
        const size_t times = star == piece.npos ? 1 : std::stoul(piece.substr(star + 1));
        bytes.insert(bytes.end(), times, static_cast<uint8_t>(std::stoul(piece)));
    }
    return bytes;
}

/// NAME=VALUE, or NAME alone; every one must be asked for.
class Words {
 public:
    explicit Words(const std::vector<std::string>& words) {
        for (const std::string& word : words) {
            const size_t at = word.find('=');
            m_values[word.substr(0, at)] = at == word.npos ? "" : word.substr(at + 1);
        }
    }

    bool has(const std::string& name) {
        m_known[name] = true;
        return m_values.contains(name);
    }

    std::string text(const std::string& name, const std::string& otherwise = {}) {
        return has(name) ? m_values[name] : otherwise;
    }

    template <typename Number>
    Number number(const std::string& name, Number otherwise) {
        return has(name) ? static_cast<Number>(std::stoul(m_values[name], nullptr, 0)) : otherwise;
    }

    void checkAllKnown() const {
        for (const auto& [name, value] : m_values)
            if (!m_known.contains(name)) throw std::invalid_argument("unknown word: " + name);
    }

 private:
    std::map<std::string, std::string> m_values;
    std::map<std::string, bool> m_known;
};

std::string address(const std::string& text, bool isIpv4) {
    if (text.find(':') != text.npos || std::count(text.begin(), text.end(), '.') != 1) return text;
    const size_t dot = text.find('.');
    return addressOf(isIpv4, std::stoi(text), text.substr(dot + 1));
}

How howOf(Words& words, bool isIpv4) {
    How how{.from = words.text("host", "a")};
    const Bytes mac = bytesIn(words.text("mac"));
    std::copy(mac.begin(), mac.end(), how.to.begin());
    const bool hasOwn = words.has(isIpv4 ? "kernel4" : "kernel6");
    words.has(isIpv4 ? "kernel6" : "kernel4");
    how.tellsNobodyIfMute = words.has("kernel") || hasOwn;
    return how;
}

std::string senderOf(Words& words, bool isIpv4) {
    const int vlan = 10 * (words.text("host", "a")[0] - 'a' + 1);
    return address(words.text("from", std::to_string(vlan) + ".2"), isIpv4);
}

template <typename Packet>
void sendWhole(Twins& twins, const Packet& packet, const How& how, size_t largest) {
    static uint16_t id = 30000;
    if constexpr (std::is_same_v<Packet, Ipv4>) {
        if (largest == 0) return void(twins.send(packet, how));
        Ipv4 whole = packet;
        whole.id = ++id;
        for (const Ipv4& one : packets::fragments(whole, largest)) twins.send(one, how);
    } else {
        if (largest == 0) return void(twins.send(packet, how));
        for (const Ipv6& one : packets::fragments(packet, largest, ++id)) twins.send(one, how);
    }
}

void send4(Twins& twins, Words words) {
    Ipv4 packet{.size = words.number("size", size_t{1500}),
                .from = senderOf(words, true),
                .to = address(words.text("to", "20.2"), true),
                .dontFragment = words.number("df", 1) != 0,
                .ttl = words.number("ttl", uint8_t{64}),
                .tos = words.number("tos", uint8_t{0}),
                .protocol = words.number("proto", uint8_t{17}),
                .fromPort = words.number("sport", uint16_t{4000}),
                .toPort = words.number("dport", uint16_t{5000}),
                .options = bytesIn(words.text("options")),
                .id = words.number("id", uint16_t{0})};
    if (words.has("icmp")) {
        packet.protocol = kIcmp;
        packet.payload = packets::icmp(words.number("icmp", uint8_t{0}), 0, packet.size - 20);
    }
    const size_t largest = words.number("fragments", size_t{0});
    sendWhole(twins, packet, howOf(words, true), largest);
    words.checkAllKnown();
}

// The first extension header's type and a colon, and then all of them.
void extend(Ipv6& packet, const std::string& headers) {
    if (headers.empty()) return;
    packet.firstHeader = static_cast<uint8_t>(std::stoul(headers));
    packet.extensions = bytesIn(headers.substr(headers.find(':') + 1));
}

void send6(Twins& twins, Words words) {
    Ipv6 packet{.size = words.number("size", size_t{1500}),
                .from = senderOf(words, false),
                .to = address(words.text("to", "20.2"), false),
                .hopLimit = words.number("ttl", uint8_t{64}),
                .trafficClass = words.number("tos", uint8_t{0}),
                .nextHeader = words.number("proto", uint8_t{17}),
                .fromPort = words.number("sport", uint16_t{4000}),
                .toPort = words.number("dport", uint16_t{5000}),
                .flowLabel = words.number("id", uint32_t{0})};
    extend(packet, words.text("headers"));
    if (words.has("icmp")) {
        packet.nextHeader = kIcmpv6;
        packet.payload =
            packets::icmp6(words.number("icmp", uint8_t{0}), 0,
                           packet.size - 40 - packet.extensions.size(), packet.from, packet.to);
    }
    const size_t largest = words.number("fragments", size_t{0});
    sendWhole(twins, packet, howOf(words, false), largest);
    words.checkAllKnown();
}

void sendMerged(Twins& twins, Words words, bool isIpv4, bool isTcp) {
    twins.send(
        Merged{.from = senderOf(words, isIpv4),
               .to = address("20.2", isIpv4),
               .bytes = words.number("bytes", size_t{20000}),
               .each = words.number(isIpv4 ? "each4" : "each6", words.number("each", size_t{1448})),
               .isTcp = isTcp});
    words.has(isIpv4 ? "each6" : "each4");
    words.checkAllKnown();
}

// False: it is no packet.
bool sendLine(Twins& twins, const std::string& kind, const std::vector<std::string>& rest) {
    const size_t digits = kind.find_first_of("46");
    if (digits == kind.npos) return false;
    const std::string what = kind.substr(0, digits);
    if (what != "v" && what != "tcp" && what != "udp") return false;
    Words words(rest);
    for (int left = words.number("times", 1); left > 0; --left)
        for (const char family : kind.substr(digits)) {
            if (what != "v")
                sendMerged(twins, words, family == '4', what == "tcp");
            else if (family == '4')
                send4(twins, words);
            else
                send6(twins, words);
        }
    return true;
}

void prepare(Twins& twins, const std::string& kind, const std::string& rest,
             const std::vector<std::string>& words) {
    if (kind == "nft")
        twins.nft(rest);
    else if (kind == "sh")
        twins.shell(rest);
    else if (kind == "hosts")
        twins.onHosts(rest);
    else if (kind == "sysctl")
        twins.sysctl(words.at(0), words.at(1));
    else if (kind == "vlan")
        twins.addVlan(std::stoi(words.at(0)), words.at(1), std::stoi(words.at(2)));
    else if (kind == "port")
        twins.addPort(words.at(0), words.at(1), words.at(2));
    else if (kind == "ignore" && rest == "source")
        twins.ignoreAnswerSource();
    else if (kind == "ignore" && rest == "host")
        twins.ignoreAnswerHost();
    else if (kind == "fence6")
        twins.fenceByIpv6();
    else if (kind == "meanwhile")
        twins.meanwhile(rest);
    else if (kind != "mtus")
        throw std::invalid_argument("unknown command: " + kind);
}

// The line once for each choice of its alternatives.
std::vector<std::string> alternatives(const std::string& line) {
    const size_t bar = line.find('|');
    if (bar == line.npos) return {line};
    const size_t from = line.find_last_of(" =", bar) + 1;
    const size_t to = std::min(line.find(' ', bar), line.size());
    std::vector<std::string> all;
    for (const std::string& one : split(line.substr(from, to - from), '|'))
        for (const std::string& whole : alternatives(line.substr(0, from) + one + line.substr(to)))
            all.push_back(whole);
    return all;
}

}  // namespace

void play(Twins& twins, const std::string& lines) {
    std::string batch;  // one call for successive lines of ip
    const auto flush = [&] {
        if (!batch.empty()) twins.ip(std::exchange(batch, {}));
    };
    for (const std::string& several : split(lines, '\n'))
        for (const std::string& line : alternatives(several)) {
            std::vector<std::string> words = split(line, ' ');
            const std::string kind = words.front();
            words.erase(words.begin());
            const std::string rest = line.substr(std::min(kind.size() + 1, line.size()));
            if (kind == "ip") {
                batch += rest + '\n';
                continue;
            }
            flush();
            if (!sendLine(twins, kind, words)) prepare(twins, kind, rest, words);
        }
    flush();
}

Mtus mtusOf(const std::string& lines) {
    Mtus mtus;
    const std::string first = lines.substr(0, lines.find('\n'));
    if (!first.starts_with("mtus ")) return mtus;
    std::vector<std::string> all = split(first, ' ');
    all.erase(all.begin());
    Words words(all);
    mtus.a = words.number("a", mtus.a);
    mtus.b = words.number("b", mtus.b);
    mtus.c = words.number("c", mtus.c);
    words.checkAllKnown();
    return mtus;
}

}  // namespace twin
