// SPDX-License-Identifier: MIT
// What the rules log, for the fuzz targets: copies of packets, and messages that refuse them.
#ifndef PMTUD_TEST_FUZZ_TRAFFIC_H
#define PMTUD_TEST_FUZZ_TRAFFIC_H

#include "copies_model.h"
#include "netlink_message.h"

namespace fuzz {

/// The input decides which are lost, repeated, out of order, cut short or altered.
class Traffic {
 public:
    static constexpr uint8_t kInterfaces = 7;

    /// Adds one message, or a burst of short copies, to the datagram.
    void add(Input& input, const pmtud_linux::Vlans& vlans, Bytes& datagram) {
        const uint8_t kind = input.byte();
        if (kind % 8 == 6) return addBurst(1 + kind / 8 * 2, datagram);
        datagram = datagram + draw(input, vlans, kind);
    }

    /// Adds short copies, each followed by the message that refuses it.
    void addRefused(unsigned count, const pmtud_linux::Vlans& vlans, Bytes& datagram) {
        Bytes error = makePacket(4, 5, 28, 56, 9);
        nameMtu(error, 1, vlans);
        for (; count > 0; --count) {
            addBurst(1, datagram);
            datagram = datagram + refusal(1, 0)
                                      .netNumber(NFULA_MARK, 1)
                                      .add(NFULA_PAYLOAD, error + m_sent.back().packet)
                                      .bytes;
        }
    }

 private:
    struct Sent {
        Bytes packet;
        uint32_t ingress = 0;
        int egressVlan = 1;  // of the last copy, mostly
    };

    Bytes draw(Input& input, const pmtud_linux::Vlans& vlans, uint8_t kind) {
        switch (kind % 8) {
            case 0:
            case 1: {
                Bytes packet = drawPacket(input, kind / 32);
                m_sent.push_back({std::move(packet), 1U + input.byte() % kInterfaces});
                return copyOf(m_sent.back(), input, kind);
            }
            case 2:
                return copyOf(drawSent(input), input, kind);
            case 7:
                return drawLogMessage(input, kind / 8);
            default:
                return drawRefusal(input, vlans, kind / 8);
        }
    }

    // Mostly a recent one.
    Sent& drawSent(Input& input) {
        if (m_sent.empty()) m_sent.push_back({makePacket(4, 5, 28, 28, 0), 1});
        const uint8_t choice = input.byte();
        const size_t age = choice < 0x80 ? choice % 8 : (choice & 0x7F) * size_t{3};
        return m_sent[m_sent.size() - 1 - age % m_sent.size()];
    }

    static Bytes makePacket(unsigned version, unsigned words, size_t size, size_t claimed,
                            uint16_t identity) {
        Bytes packet(size);
        for (size_t i = 0; i < size; ++i)
            packet[i] = static_cast<uint8_t>(i * 7 + identity + (i % 2 == 0 ? identity / 256 : 0));
        if (size == 0) return packet;
        packet[0] = static_cast<uint8_t>(version * 16 + words);
        const size_t at = version == 4 ? 2 : 4;
        if (version == 6) claimed -= std::min<size_t>(claimed, 40);
        if (size >= at + 2) put16(packet, at, claimed);
        return packet;
    }

    static Bytes drawPacket(Input& input, uint8_t kind) {
        const uint8_t shape = input.byte();
        constexpr std::array<size_t, 8> kSizes = {1500, 1500, 1500, 1499, 600, 64, 44, 1501};
        size_t size = kSizes[shape % 8];
        size_t claimed = shape % 8 < 3 ? 1500 + shape : size;
        if (kind == 5) claimed = input.number<uint16_t>();
        if (kind == 6) size = input.number<uint16_t>() % 1600;
        const unsigned version = shape / 8 % 2 == 0 ? 4 : 6;
        constexpr std::array<unsigned, 4> kWords = {5, 6, 15, 4};
        const unsigned low = version == 4 ? kWords[kind % 4] : 0;
        return makePacket(kind == 7 ? shape / 16U : version, low, size, claimed, input.byte());
    }

    // Sometimes messages before it are missing, or it has no number.
    Netlink logged(const std::string& prefix, uint8_t choice) {
        Netlink message = logMessage().text(NFULA_PREFIX, prefix);
        if (choice == 1) m_sequence += 3;
        if (choice == 2) --m_sequence;
        if (choice != 3) message.netNumber(NFULA_SEQ, m_sequence++);
        return message;
    }

    Netlink refusal(uint32_t egress, uint8_t choice) {
        return logged("pmtud:refused", choice).netNumber(NFULA_IFINDEX_OUTDEV, egress);
    }

    Bytes copyOf(Sent& sent, Input& input, uint8_t kind) {
        const uint8_t choice = input.byte();
        sent.egressVlan = choice % 4 + 1;
        std::string prefix = "pmtud:" + std::to_string(sent.egressVlan);
        if (choice >= 0xE0) prefix = "pmtud:" + std::to_string(input.number<int16_t>());
        if (choice >= 0xF0) prefix = drawText(input);
        Netlink message = logged(prefix, kind / 8 % 4);
        const uint32_t ingress = choice == 0xDF ? input.number<uint32_t>() : sent.ingress;
        if (choice != 0xDE) message.netNumber(NFULA_IFINDEX_INDEV, ingress);
        constexpr std::array<size_t, 4> kNown = {14, 14, 6, 0};
        Bytes addresses;
        for (size_t i = 0; i < kNown[choice % 4]; ++i)
            addresses.push_back(static_cast<uint8_t>(0x40 + i + ingress));
        if (!addresses.empty()) message.add(NFULA_HWHEADER, addresses);
        return message.add(NFULA_PAYLOAD, sent.packet).bytes;
    }

    static std::string drawText(Input& input) {
        const Span text = input.bytes(input.byte() % 20);
        return {text.begin(), text.end()};
    }

    // Changes that the kernel makes before it refuses a packet, and some that nothing makes.
    static void alter(Bytes& quote, uint8_t how, Input& input) {
        const size_t header = headerOf(quote);
        if (how == 1 && header != 0) quote[10] ^= 0x5A;
        if (how == 2 && header > 20) quote[20 + input.byte() % (header - 20)] ^= 0x5A;
        if (how == 3 && !quote.empty()) quote[input.number<uint16_t>() % quote.size()] ^= 0x5A;
        if (how == 4) quote.resize(std::min<size_t>(quote.size(), input.byte()));
        if (how == 5) quote.insert(quote.end(), 3, uint8_t{0x77});
    }

    // The error ends with its ICMP header.
    static void nameMtu(Bytes& error, int vlan, const pmtud_linux::Vlans& vlans) {
        const auto found = vlans.find(vlan);
        if (found == vlans.end()) return;
        put16(error, error.size() - 4, found->second.mtu >> 16);
        put16(error, error.size() - 2, found->second.mtu & 0xffff);
    }

    Bytes drawRefusal(Input& input, const pmtud_linux::Vlans& vlans, uint8_t kind) {
        const Sent sent = drawSent(input);
        const uint8_t choice = input.byte();
        Bytes quote = sent.packet;
        constexpr std::array<size_t, 4> kQuoted = {28, 48, 548, 1232};
        quote.resize(std::min(quote.size(), kQuoted[choice % 4]));
        alter(quote, choice / 4 % 8, input);
        const bool isIpv6 = headerOf(sent.packet) == 40;
        const unsigned words = choice >= 0xF0 ? 6 : 5;
        Bytes error = isIpv6 ? makePacket(6, 0, 48, 48 + quote.size(), 9)
                             : makePacket(4, words, words * 4 + 8, 28 + quote.size(), 9);
        if (choice != 0xBF) nameMtu(error, sent.egressVlan, vlans);
        error = error + quote;
        if (choice == 0xEF) error.resize(input.byte() % error.size());
        Netlink message =
            choice == 0xEE
                ? logged(drawText(input), kind % 4)
                : refusal(choice == 0x8F ? input.number<uint32_t>() : sent.ingress, kind % 4);
        if (choice == 0xCF) message.netNumber(NFULA_MARK, input.number<uint32_t>());
        if (choice != 0xCE && choice != 0xCF) message.netNumber(NFULA_MARK, 1 + choice % 4U);
        return message.add(NFULA_PAYLOAD, error).bytes;
    }

    // All different.
    void addBurst(unsigned count, Bytes& datagram) {
        for (; count > 0; --count) {
            m_sent.push_back(
                {makePacket(4, 5, 28, 28, static_cast<uint16_t>(m_bursts += 0x101)), 1});
            datagram = datagram + logged("pmtud:1", 0)
                                      .netNumber(NFULA_IFINDEX_INDEV, 1)
                                      .add(NFULA_PAYLOAD, m_sent.back().packet)
                                      .bytes;
        }
    }

    std::vector<Sent> m_sent;
    uint32_t m_sequence = 0;
    uint16_t m_bursts = 0;
};

}  // namespace fuzz

#endif
