// SPDX-License-Identifier: MIT
// A path-MTU answer as host A receives it: ICMP "fragmentation needed", ICMPv6 Packet Too Big.
#include "answer.h"

#include "bytes.h"

namespace packets {

namespace {

constexpr size_t kIpAt = 14;

// The message's checksum, folded only once.
uint32_t foldedOnce(std::span<const uint8_t> message) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < message.size(); i += 2)
        if (i != 2) sum += get16(&message[i]);
    return ~((sum & 0xffff) + (sum >> 16)) & 0xffff;
}

std::optional<Answer> readAnswer4(std::span<const uint8_t> packet) {
    if (packet.size() < 20 || packet[9] != 1) return std::nullopt;
    const size_t header = size_t{4} * (packet[0] & 15U);
    const size_t length = get16(&packet[2]);
    if (packet[0] >> 4 != 4 || header < 20 || length > packet.size() || length < header + 8)
        return std::nullopt;
    const auto message = packet.subspan(header, length - header);
    if (get16(message.data()) != 0x0304) return std::nullopt;

    Answer answer;
    answer.family = 4;
    answer.packetLength = length;
    answer.messageLength = message.size();
    answer.source = packet.subspan(12, 4);
    answer.destination = packet.subspan(16, 4);
    answer.mtu = get16(&message[6]);
    answer.quote = message.subspan(8);
    if (onesSum(message) != 0xffff) {
        answer.carryDropped = foldedOnce(message) == get16(&message[2]);
        if (!answer.carryDropped) answer.problem = "wrong ICMP checksum";
    }
    if (get16(&message[4]) != 0) answer.problem = "unused field is not 0";
    if (answer.quote.size() < 20)
        answer.problem = "quote is too short";
    else
        answer.serial = get16(&answer.quote[4]);
    return answer;
}

std::optional<Answer> readAnswer6(std::span<const uint8_t> packet) {
    if (packet.size() < 48 || packet[6] != 58) return std::nullopt;
    const size_t length = get16(&packet[4]);
    if (packet[0] >> 4 != 6 || length + 40 > packet.size() || length < 8) return std::nullopt;
    const auto message = packet.subspan(40, length);
    if (message[0] != 2) return std::nullopt;

    Answer answer;
    answer.family = 6;
    answer.packetLength = 40 + length;
    answer.messageLength = message.size();
    answer.source = packet.subspan(8, 16);
    answer.destination = packet.subspan(24, 16);
    answer.mtu = get32(&message[4]);
    answer.quote = message.subspan(8);
    // The pseudo-header of RFC 8200 section 8.1: addresses, length, next header.
    if (onesSum(message, onesSum(packet.subspan(8, 32)) + length + 58) != 0xffff)
        answer.problem = "wrong ICMPv6 checksum";
    if (message[1] != 0) answer.problem = "code is not 0";
    if (answer.quote.size() < 40)
        answer.problem = "quote is too short";
    else
        answer.serial = get32(answer.quote.data()) & 0xfffff;
    return answer;
}

}  // namespace

std::optional<Answer> readAnswer(std::span<const uint8_t> frame) {
    if (frame.size() < kIpAt) return std::nullopt;
    const uint32_t type = get16(&frame[12]);
    if (type == 0x0800) return readAnswer4(frame.subspan(kIpAt));
    if (type == 0x86dd) return readAnswer6(frame.subspan(kIpAt));
    return std::nullopt;
}

std::optional<Answer> readAnswerPacket(std::span<const uint8_t> packet) {
    const std::optional<Answer> answer = readAnswer4(packet);
    return answer ? answer : readAnswer6(packet);
}

}  // namespace packets
