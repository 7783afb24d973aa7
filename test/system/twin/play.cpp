// SPDX-License-Identifier: MIT
// Plays a case: lines that prepare both routers, and the packets that both receive.
#include "play.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

using packets::Ipv4;
using packets::Ipv6;

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

/// NAME=VALUE, or NAME alone. Each is taken once, and none may be left over.
class Words {
 public:
    explicit Words(const std::vector<std::string>& words) {
        for (const std::string& word : words) {
            const size_t at = word.find('=');
            m_values[word.substr(0, at)] = at == word.npos ? "" : word.substr(at + 1);
        }
    }

    bool has(const std::string& name) { return m_values.erase(name) != 0; }

    std::string text(const std::string& name, const std::string& otherwise = {}) {
        const auto word = m_values.extract(name);
        return word.empty() ? otherwise : word.mapped();
    }

    template <typename Number>
    Number number(const std::string& name, Number otherwise) {
        const auto word = m_values.extract(name);
        return word.empty() ? otherwise
                            : static_cast<Number>(std::stoul(word.mapped(), nullptr, 0));
    }

    void checkNoneLeft() const {
        if (!m_values.empty())
            throw std::invalid_argument("unknown word: " + m_values.begin()->first);
    }

 private:
    std::map<std::string, std::string> m_values;
};

std::string address(const std::string& text, bool isIpv4) {
    if (text.find(':') != text.npos || std::count(text.begin(), text.end(), '.') != 1) return text;
    const size_t dot = text.find('.');
    return addressOf(isIpv4, std::stoi(text), text.substr(dot + 1));
}

/// What packets of all kinds have in common.
struct Envelope {
    Envelope(Words& words, bool isIpv4)
        : how{.from = words.text("host", "a")},
          from(address(words.text("from", std::to_string(vlanOf(how.from)) + ".2"), isIpv4)),
          to(address(words.text("to", "20.2"), isIpv4)),
          fragments(words.number("fragments", size_t{0})) {
        const Bytes mac = bytesIn(words.text("mac"));
        std::copy(mac.begin(), mac.end(), how.to.begin());
        const bool for4 = words.has("kernel4");
        const bool for6 = words.has("kernel6");
        how.tellsNobodyIfMute = words.has("kernel") || (isIpv4 ? for4 : for6);
    }

    How how;
    std::string from;
    std::string to;
    size_t fragments;  ///< the largest; 0 for a whole packet
};

uint16_t nextFragmented() {
    static uint16_t id = 30000;
    return ++id;
}

void send4(Twins& twins, Words words) {
    const Envelope envelope(words, true);
    Ipv4 packet{.size = words.number("size", size_t{1500}),
                .from = envelope.from,
                .to = envelope.to,
                .dontFragment = words.number("df", 1) != 0,
                .ttl = words.number("ttl", uint8_t{64}),
                .tos = words.number("tos", uint8_t{0}),
                .protocol = words.number("proto", uint8_t{17}),
                .fromPort = words.number("sport", uint16_t{4000}),
                .toPort = words.number("dport", uint16_t{5000}),
                .options = bytesIn(words.text("options")),
                .id = words.number("id", uint16_t{0})};
    if (const std::string type = words.text("icmp"); !type.empty()) {
        packet.protocol = kIcmp;
        packet.payload = packets::icmp(static_cast<uint8_t>(std::stoul(type)), 0, packet.size - 20);
    }
    words.checkNoneLeft();
    if (envelope.fragments == 0) return twins.send(packet, envelope.how);
    packet.id = nextFragmented();
    for (const Ipv4& one : packets::fragments(packet, envelope.fragments))
        twins.send(one, envelope.how);
}

void send6(Twins& twins, Words words) {
    const Envelope envelope(words, false);
    Ipv6 packet{.size = words.number("size", size_t{1500}),
                .from = envelope.from,
                .to = envelope.to,
                .hopLimit = words.number("ttl", uint8_t{64}),
                .trafficClass = words.number("tos", uint8_t{0}),
                .nextHeader = words.number("proto", uint8_t{17}),
                .fromPort = words.number("sport", uint16_t{4000}),
                .toPort = words.number("dport", uint16_t{5000}),
                .flowLabel = words.number("id", uint32_t{0})};
    // The first extension header's type and a colon, and then all of them.
    if (const std::string headers = words.text("headers"); !headers.empty()) {
        packet.firstHeader = static_cast<uint8_t>(std::stoul(headers));
        packet.extensions = bytesIn(headers.substr(headers.find(':') + 1));
    }
    if (const std::string type = words.text("icmp"); !type.empty()) {
        packet.nextHeader = kIcmpv6;
        packet.payload =
            packets::icmp6(static_cast<uint8_t>(std::stoul(type)), 0,
                           packet.size - 40 - packet.extensions.size(), packet.from, packet.to);
    }
    words.checkNoneLeft();
    if (envelope.fragments == 0) return twins.send(packet, envelope.how);
    for (const Ipv6& one : packets::fragments(packet, envelope.fragments, nextFragmented()))
        twins.send(one, envelope.how);
}

void sendMerged(Twins& twins, Words words, bool isIpv4, bool isTcp) {
    const Envelope envelope(words, isIpv4);
    const size_t each = words.number("each", size_t{1448});
    const size_t each4 = words.number("each4", each);
    const size_t each6 = words.number("each6", each);
    twins.send(Merged{.from = envelope.from,
                      .to = envelope.to,
                      .bytes = words.number("bytes", size_t{20000}),
                      .each = isIpv4 ? each4 : each6,
                      .isTcp = isTcp},
               envelope.how);
    words.checkNoneLeft();
}

// False: it is not a packet.
bool sendLine(Twins& twins, const std::string& kind, const std::vector<std::string>& rest) {
    const size_t digits = kind.find_first_of("46");
    const std::string what = kind.substr(0, digits);
    if (digits == kind.npos || (what != "v" && what != "tcp" && what != "udp")) return false;
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

void prepare(Site& site, const std::string& kind, const std::string& rest,
             const std::vector<std::string>& words) {
    if (kind == "nft")
        site.router().nft(rest);
    else if (kind == "sh")
        site.router().shell(rest);
    else if (kind == "hosts")
        site.hosts().shell(rest);
    else if (kind == "sysctl")
        site.router().shell("echo " + words.at(1) + " >/proc/sys/net/" + words.at(0));
    else if (kind == "vlan")
        site.addVlans({{std::stoi(words.at(0)), words.at(1), std::stoi(words.at(2))}});
    else if (kind == "port")
        site.addPort(words.at(0), words.at(1), words.at(2));
    else if (kind == "ignore" && rest == "source")
        site.ignored.answerSource = true;
    else if (kind == "ignore" && rest == "host")
        site.ignored.answerHost = site.ignored.answerSource = true;
    else
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
        if (batch.empty()) return;
        twins.both([&](Site& site) { site.router().ip(batch); });
        batch.clear();
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
            if (kind == "meanwhile")
                twins.meanwhile(rest);
            else if (kind == "fence6")
                twins.fenceByIpv6();
            else if (!sendLine(twins, kind, words))
                twins.both([&](Site& site) { prepare(site, kind, rest, words); });
        }
    flush();
}

}  // namespace twin
