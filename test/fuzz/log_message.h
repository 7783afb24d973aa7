// SPDX-License-Identifier: MIT
// Messages of the log group for the fuzz targets: made from an input, and read by the rules of
// the format.
#ifndef PMTUD_TEST_FUZZ_LOG_MESSAGE_H
#define PMTUD_TEST_FUZZ_LOG_MESSAGE_H

#include <libnetfilter_log/linux_nfnetlink_log.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "input.h"
#include "netlink_message.h"

namespace fuzz {

constexpr uint16_t kLogPacketType = 0x0400;
constexpr std::size_t kLogHeaders = kMessageHeader + sizeof(nfgenmsg);

/// What is to be read in a message, by the rules of the format alone.
struct Message {
    std::string prefix;
    uint32_t ingress = 0;
    uint32_t egress = 0;
    uint32_t mark = 0;
    std::optional<uint32_t> sequence;
    Span linkHeader;
    Span payload;
};

inline uint32_t bigEndian(Span bytes) {
    uint32_t value = 0;
    for (const uint8_t byte : bytes) value = value * 256 + byte;
    return value;
}

inline bool take(Message& message, uint16_t type, Span payload) {
    const bool isNumber = type == NFULA_IFINDEX_OUTDEV || type == NFULA_IFINDEX_INDEV ||
                          type == NFULA_MARK || type == NFULA_SEQ;
    if (isNumber && payload.size() != 4) return false;
    if (type == NFULA_PREFIX) message.prefix = textOf(payload);
    if (type == NFULA_IFINDEX_INDEV) message.ingress = bigEndian(payload);
    if (type == NFULA_IFINDEX_OUTDEV) message.egress = bigEndian(payload);
    if (type == NFULA_MARK) message.mark = bigEndian(payload);
    if (type == NFULA_SEQ) message.sequence = bigEndian(payload);
    if (type == NFULA_HWHEADER) message.linkHeader = payload;
    if (type == NFULA_PAYLOAD) message.payload = payload;
    return true;
}

/// Of a whole message that has the type of a logged packet.
inline std::optional<Message> expectedMessage(Span padded) {
    if (load<uint32_t>(padded) < kLogHeaders) return std::nullopt;
    Message message;
    const auto takeOne = [&](uint16_t type, Span payload) { return take(message, type, payload); };
    if (!forEachAttribute(padded.subspan(kLogHeaders), takeOne)) return std::nullopt;
    return message;
}

/// The header of an IPv4 or IPv6 packet, if all of it is there; else 0.
inline std::size_t headerOf(Span packet) {
    if (packet.size() >= 40 && packet[0] / 16 == 6) return 40;
    if (packet.size() < 20 || packet[0] / 16 != 4) return 0;
    const std::size_t size = packet[0] % 16 * std::size_t{4};
    return size >= 20 && size <= packet.size() ? size : 0;
}

/// The packet that an error message quotes: it follows an IP header and 8 bytes.
inline Span quotedBy(Span error) {
    const std::size_t header = headerOf(error);
    if (header == 0 || error.size() < header + 8) return {};
    return error.subspan(header + 8);
}

/// Draws what the rules log, mostly: copies of packets, and messages that refuse one of them;
/// lost, doubled, out of order, cut short and altered as the input wants.
class Traffic {
 public:
    /// Adds one message, or a burst of short copies, to the datagram.
    void add(Input& input, Bytes& datagram) {
        const uint8_t kind = input.byte();
        Bytes message;
        switch (kind % 8) {
            case 0:
            case 1: {
                Bytes packet = drawPacket(input, kind / 32);
                remember(std::move(packet), 1 + input.byte() % kInterfaces);
                message = copyOf(m_sent.back(), input, kind);
                break;
            }
            case 2:
                message = copyOf(drawSent(input), input, kind);
                break;
            case 3:
            case 4:
            case 5:
                message = drawRefusal(input, kind / 8);
                break;
            case 6:
                return addBurst(1 + kind / 8 * 2, datagram);
            default:
                message = drawArbitrary(input, kind / 8);
                break;
        }
        datagram.insert(datagram.end(), message.begin(), message.end());
    }

    /// Adds short copies, and behind each the message that refuses it.
    void addRefused(unsigned count, Bytes& datagram) {
        for (; count > 0; --count) {
            addBurst(1, datagram);
            Bytes error = makePacket(4, 5, 28, 56, 9);
            const Bytes& quote = m_sent.back().packet;
            error.insert(error.end(), quote.begin(), quote.end());
            Bytes message = start();
            addText(message, NFULA_PREFIX, "pmtud:refused");
            addNumber(message, NFULA_IFINDEX_OUTDEV, 1);
            addNumber(message, NFULA_MARK, 1);
            addSequence(message, 0);
            addAttribute(message, NFULA_PAYLOAD, error);
            store(message, 0, static_cast<uint32_t>(message.size()));
            datagram.insert(datagram.end(), message.begin(), message.end());
        }
    }

    static constexpr uint8_t kInterfaces = 7;

    /// Mostly of the log group, with attributes that contradict each other or their lengths.
    static Bytes drawArbitrary(Input& input, uint8_t kind) {
        if (kind == 31) {
            const Span raw = input.bytes(input.byte());
            return {raw.begin(), raw.end()};
        }
        Bytes message(kLogHeaders);
        store(message, 4, kind == 30 ? input.number<uint16_t>() : kLogPacketType);
        addAttributes(input,
                      {NFULA_PREFIX, NFULA_IFINDEX_INDEV, NFULA_IFINDEX_OUTDEV, NFULA_MARK,
                       NFULA_SEQ, NFULA_HWHEADER, NFULA_PAYLOAD},
                      message);
        closeMessage(input, message);
        return message;
    }

 private:
    struct Sent {
        Bytes packet;
        uint32_t ingress = 0;
    };

    void remember(Bytes packet, uint32_t ingress) {
        m_sent.push_back({std::move(packet), ingress});
    }

    // Mostly one of the last.
    const Sent& drawSent(Input& input) {
        if (m_sent.empty()) remember(makePacket(4, 5, 28, 28, 0), 1);
        const uint8_t choice = input.byte();
        const std::size_t age = choice < 0x80 ? choice % 8 : (choice & 0x7F) * std::size_t{3};
        return m_sent[m_sent.size() - 1 - age % m_sent.size()];
    }

    static Bytes makePacket(unsigned version, unsigned words, std::size_t size, std::size_t claimed,
                            uint16_t identity) {
        Bytes packet(size);
        for (std::size_t i = 0; i < size; ++i)
            packet[i] = static_cast<uint8_t>(i * 7 + identity + (i % 2 == 0 ? identity / 256 : 0));
        if (size == 0) return packet;
        packet[0] = static_cast<uint8_t>(version * 16 + words);
        const std::size_t at = version == 4 ? 2 : 4;
        if (version == 6) claimed -= std::min<std::size_t>(claimed, 40);
        if (size < at + 2) return packet;
        packet[at] = static_cast<uint8_t>(claimed / 256);
        packet[at + 1] = static_cast<uint8_t>(claimed % 256);
        return packet;
    }

    static Bytes drawPacket(Input& input, uint8_t kind) {
        const uint8_t shape = input.byte();
        constexpr std::array<std::size_t, 8> kSizes = {1500, 1500, 1500, 1499, 600, 64, 44, 1501};
        std::size_t size = kSizes[shape % 8];
        std::size_t claimed = shape % 8 < 3 ? 1500 + shape : size;
        if (kind == 5) claimed = input.number<uint16_t>();
        if (kind == 6) size = input.number<uint16_t>() % 1600;
        const unsigned version = shape / 8 % 2 == 0 ? 4 : 6;
        constexpr std::array<unsigned, 4> kWords = {5, 6, 15, 4};
        const unsigned low = version == 4 ? kWords[kind % 4] : 0;
        return makePacket(kind == 7 ? shape / 16U : version, low, size, claimed, input.byte());
    }

    Bytes start() const {
        Bytes message(kLogHeaders);
        store(message, 4, kLogPacketType);
        return message;
    }

    // Now and then some are missing, or one has no number.
    void addSequence(Bytes& message, uint8_t choice) {
        if (choice == 1) m_sequence += 3;
        if (choice == 2) --m_sequence;
        if (choice != 3) addNumber(message, NFULA_SEQ, m_sequence++);
    }

    Bytes copyOf(const Sent& sent, Input& input, uint8_t kind) {
        const uint8_t choice = input.byte();
        std::string prefix = "pmtud:" + std::to_string(choice % 4 + 1);
        if (choice >= 0xE0) prefix = "pmtud:" + std::to_string(input.number<int16_t>());
        if (choice >= 0xF0) prefix = drawText(input);
        Bytes message = start();
        addText(message, NFULA_PREFIX, prefix);
        uint32_t ingress = sent.ingress;
        if (choice == 0xDF) ingress = input.number<uint32_t>();
        if (choice != 0xDE) addNumber(message, NFULA_IFINDEX_INDEV, ingress);
        addSequence(message, kind / 8 % 4);
        constexpr std::array<std::size_t, 4> kNown = {14, 14, 6, 0};
        Bytes addresses;
        for (std::size_t i = 0; i < kNown[choice % 4]; ++i)
            addresses.push_back(static_cast<uint8_t>(0x40 + i + ingress));
        if (!addresses.empty()) addAttribute(message, NFULA_HWHEADER, addresses);
        addAttribute(message, NFULA_PAYLOAD, sent.packet);
        store(message, 0, static_cast<uint32_t>(message.size()));
        return message;
    }

    static std::string drawText(Input& input) {
        const Span text = input.bytes(input.byte() % 20);
        return {text.begin(), text.end()};
    }

    // What the kernel writes into a packet before it refuses it, and what nobody writes.
    static void alter(Bytes& quote, uint8_t how, Input& input) {
        const std::size_t header = headerOf(quote);
        if (how % 8 == 1 && header != 0) quote[10] ^= 0x5A;
        if (how % 8 == 2 && header > 20) quote[20 + input.byte() % (header - 20)] ^= 0x5A;
        if (how % 8 == 3 && !quote.empty()) quote[input.number<uint16_t>() % quote.size()] ^= 0x5A;
        if (how % 8 == 4) quote.resize(std::min<std::size_t>(quote.size(), input.byte()));
        if (how % 8 == 5) quote.insert(quote.end(), 3, uint8_t{0x77});
    }

    Bytes drawRefusal(Input& input, uint8_t kind) {
        const Sent sent = drawSent(input);
        const uint8_t choice = input.byte();
        Bytes quote = sent.packet;
        constexpr std::array<std::size_t, 4> kQuoted = {28, 48, 548, 1232};
        quote.resize(std::min(quote.size(), kQuoted[choice % 4]));
        alter(quote, choice / 4 % 8, input);
        const bool isIpv6 = headerOf(sent.packet) == 40;
        const unsigned words = choice >= 0xF0 ? 6 : 5;
        Bytes error = isIpv6 ? makePacket(6, 0, 48, 48 + quote.size(), 9)
                             : makePacket(4, words, words * 4 + 8, 28 + quote.size(), 9);
        error.insert(error.end(), quote.begin(), quote.end());
        if (choice == 0xEF) error.resize(input.byte() % error.size());
        Bytes message = start();
        addText(message, NFULA_PREFIX, choice == 0xEE ? drawText(input) : "pmtud:refused");
        const uint32_t egress = choice == 0x8F ? input.number<uint32_t>() : sent.ingress;
        addNumber(message, NFULA_IFINDEX_OUTDEV, egress);
        if (choice == 0xCF)
            addNumber(message, NFULA_MARK, input.number<uint32_t>());
        else if (choice != 0xCE)
            addNumber(message, NFULA_MARK, 1 + choice % 4U);
        addSequence(message, kind % 4);
        addAttribute(message, NFULA_PAYLOAD, error);
        store(message, 0, static_cast<uint32_t>(message.size()));
        return message;
    }

    // No two alike.
    void addBurst(unsigned count, Bytes& datagram) {
        for (; count > 0; --count) {
            remember(makePacket(4, 5, 28, 28, static_cast<uint16_t>(m_bursts += 0x101)), 1);
            Bytes message = start();
            addText(message, NFULA_PREFIX, "pmtud:1");
            addNumber(message, NFULA_IFINDEX_INDEV, 1);
            addSequence(message, 0);
            addAttribute(message, NFULA_PAYLOAD, m_sent.back().packet);
            store(message, 0, static_cast<uint32_t>(message.size()));
            datagram.insert(datagram.end(), message.begin(), message.end());
        }
    }

    std::vector<Sent> m_sent;
    uint32_t m_sequence = 0;
    uint16_t m_bursts = 0;
};

}  // namespace fuzz

#endif
