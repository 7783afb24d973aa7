// SPDX-License-Identifier: MIT
// Random numbers and bytes, the same for the same seed with every compiler and library.
#ifndef PMTUD_TEST_RANDOM_H
#define PMTUD_TEST_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace tests {

using Bytes = std::vector<uint8_t>;

class Random {
 public:
    explicit Random(uint32_t seed) : m_engine(seed) {}

    uint32_t number() { return static_cast<uint32_t>(m_engine()); }
    /// 0 to limit - 1. The standard leaves to the library how its distributions come by it.
    uint32_t below(uint32_t limit) { return number() % limit; }
    bool once(uint32_t count) { return below(count) == 0; }
    uint8_t byte() { return static_cast<uint8_t>(below(256)); }

    Bytes bytes(size_t count) {
        Bytes bytes(count);
        for (uint8_t& value : bytes) value = byte();
        return bytes;
    }

    /// Bytes of which most are 0 or most are 0xFF, or none is likelier than another.
    Bytes lopsidedBytes(size_t count) {
        Bytes bytes = this->bytes(count);
        const uint32_t kind = below(3);
        if (kind == 2) return bytes;
        for (uint8_t& value : bytes) {
            if (!once(4)) value = kind == 0 ? 0x00 : 0xFF;
        }
        return bytes;
    }

 private:
    std::mt19937 m_engine;
};

}  // namespace tests

#endif
