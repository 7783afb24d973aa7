// SPDX-License-Identifier: MIT
// Netlink messages for the fuzz targets: made from an input, and read by the rules of the format.
#ifndef PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H
#define PMTUD_TEST_FUZZ_NETLINK_MESSAGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "input.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

constexpr std::size_t messageHeader = 16;
constexpr std::size_t attributeHeader = 4;

/// A message is no larger, whatever the input wants.
constexpr std::size_t largestMessage = 200000;

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

inline uint16_t attributeType(uint16_t type, const std::vector<uint16_t>& known, Input& input) {
    return type < known.size() ? known[type] : input.number<uint16_t>();
}

/// Adds attributes of these types, mostly; some that claim another length than they have.
inline void addAttributes(Input& input, const std::vector<uint16_t>& known, Bytes& bytes) {
    constexpr std::size_t largestAttribute = 0x10010;
    unsigned left = input.byte() % 16;
    for (; left > 0 && bytes.size() < largestMessage - largestAttribute; --left) {
        const uint8_t choice = input.byte();
        const uint16_t type = attributeType(choice % 16, known, input);
        std::size_t size = input.byte();
        if (size >= 250) size = input.number<uint16_t>();
        const Span given = input.bytes(size);
        const std::size_t start = bytes.size();
        bytes.resize(start + attributeHeader);
        // Zeros where a large attribute is wanted and the input does not give it.
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
    // Without the padding behind the last attribute.
    if (choice == 4) message.resize(claimed);
}

/// Hands the attributes' types and payloads to `take`, until one contradicts the space that it is
/// in, which ends the attributes, or `take` answers false, which is the result.
template <typename Take>
bool forEachAttribute(Span space, Take take) {
    while (space.size() >= attributeHeader) {
        const auto length = load<uint16_t>(space);
        if (length < attributeHeader || length > space.size()) return true;
        const auto type = static_cast<uint16_t>(load<uint16_t>(space, 2) & 0x3FFF);
        if (!take(type, space.subspan(attributeHeader, length - attributeHeader))) return false;
        space = space.subspan(std::min(aligned(length), space.size()));
    }
    return true;
}

}  // namespace fuzz

#endif
