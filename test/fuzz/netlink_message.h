// SPDX-License-Identifier: MIT
// Netlink messages for the fuzz targets: made from an input, and read by the rules of the format.
#ifndef PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H
#define PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "input.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

constexpr std::size_t kMessageHeader = 16;
constexpr std::size_t kAttributeHeader = 4;

/// A message is no larger, whatever the input wants.
constexpr std::size_t kLargestMessage = 200000;

constexpr std::size_t aligned(std::size_t size) { return (size + 3) / 4 * 4; }

/// The number at the offset, in this machine's byte order as all of netlink's own are.
template <typename T>
T load(Span bytes, std::size_t offset = 0) {
    T value;
    memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <typename T>
void store(Bytes& bytes, std::size_t offset, T value) {
    memcpy(bytes.data() + offset, &value, sizeof value);
}

inline void addAttribute(Bytes& bytes, uint16_t type, Span payload) {
    const std::size_t start = bytes.size();
    bytes.resize(start + kAttributeHeader);
    store(bytes, start, static_cast<uint16_t>(kAttributeHeader + payload.size()));
    store(bytes, start + 2, type);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    bytes.resize(aligned(bytes.size()));
}

/// In network order, as netfilter has its numbers.
inline void addNumber(Bytes& bytes, uint16_t type, uint32_t number) {
    const std::array<uint8_t, 4> payload = {
        static_cast<uint8_t>(number >> 24), static_cast<uint8_t>(number >> 16),
        static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number)};
    addAttribute(bytes, type, payload);
}

/// With the terminating zero.
inline void addText(Bytes& bytes, uint16_t type, const std::string& text) {
    const auto* const start = reinterpret_cast<const uint8_t*>(text.c_str());
    addAttribute(bytes, type, {start, text.size() + 1});
}

inline uint16_t attributeType(uint16_t type, const std::vector<uint16_t>& known, Input& input) {
    return type < known.size() ? known[type] : input.number<uint16_t>();
}

/// Adds attributes of these types, mostly; some that claim another length than they have.
inline void addAttributes(Input& input, const std::vector<uint16_t>& known, Bytes& bytes) {
    constexpr std::size_t kLargestAttribute = 0x10010;
    unsigned left = input.byte() % 16;
    for (; left > 0 && bytes.size() < kLargestMessage - kLargestAttribute; --left) {
        const uint8_t choice = input.byte();
        const uint16_t type = attributeType(choice % 16, known, input);
        std::size_t size = input.byte();
        if (size >= 250) size = input.number<uint16_t>();
        const Span given = input.bytes(size);
        const std::size_t start = bytes.size();
        bytes.resize(start + kAttributeHeader);
        // Zeros if a large attribute is wanted and the input does not give it.
        bytes.insert(bytes.end(), given.begin(), given.end());
        if ((choice & 0x40) != 0 && size > given.size())
            bytes.resize(bytes.size() + size - given.size());
        const bool lies = (choice & 0x80) != 0;
        const auto length = static_cast<uint16_t>(bytes.size() - start);
        store(bytes, start, lies ? input.number<uint16_t>() : length);
        store(bytes, start + 2, type);
        bytes.resize(aligned(bytes.size()));
    }
}

/// The header's length becomes that of the bytes or another, and the bytes are as many or fewer.
inline void closeMessage(Input& input, Bytes& message) {
    auto claimed = static_cast<uint32_t>(message.size());
    const uint8_t choice = input.byte();
    if (choice == 1) claimed = input.number<uint32_t>();
    if (choice == 2 || choice == 4) claimed -= input.byte() % 4;
    store(message, 0, claimed);
    if (choice == 3) message.resize(message.size() - input.number<uint16_t>() % message.size());
    // Without the padding after the last attribute.
    if (choice == 4) message.resize(claimed);
}

/// The whole messages of a datagram that starts at a message, each as far as its padding, if the
/// datagram has it.  `padded` is the datagram and what fills it up to the next boundary.
inline std::vector<Span> messagesOf(Span padded, std::size_t size) {
    std::vector<Span> messages;
    for (std::size_t start = 0; start < size && size - start >= kMessageHeader;) {
        const std::size_t claimed = load<uint32_t>(padded, start);
        if (claimed < kMessageHeader || claimed > size - start) break;
        messages.push_back(padded.subspan(start, aligned(claimed)));
        start += aligned(claimed);
    }
    return messages;
}

inline std::string textOf(Span bytes) {
    return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

/// Hands the attributes' types and payloads to `take`, until one contradicts the space that it is
/// in, which ends the attributes, or `take` answers false, which is the result.
template <typename Take>
bool forEachAttribute(Span space, Take take) {
    while (space.size() >= kAttributeHeader) {
        const auto length = load<uint16_t>(space);
        if (length < kAttributeHeader || length > space.size()) return true;
        const auto type = static_cast<uint16_t>(load<uint16_t>(space, 2) & 0x3FFF);
        if (!take(type, space.subspan(kAttributeHeader, length - kAttributeHeader))) return false;
        space = space.subspan(std::min(aligned(length), space.size()));
    }
    return true;
}

}  // namespace fuzz

#endif
