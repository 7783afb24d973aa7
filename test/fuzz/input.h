// SPDX-License-Identifier: MIT
// The bytes from which a fuzz target draws its test; zeros follow.
#ifndef PMTUD_TEST_FUZZ_INPUT_H
#define PMTUD_TEST_FUZZ_INPUT_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <type_traits>

namespace fuzz {

using Span = std::span<const uint8_t>;

/// Reads from the front. An input yields the same numbers on every machine.
class Input {
 public:
    Input(const uint8_t* data, size_t size) : m_rest(data, size) {}

    bool exhausted() const { return m_rest.empty(); }

    uint8_t byte() {
        if (m_rest.empty()) return 0;
        const uint8_t value = m_rest.front();
        m_rest = m_rest.subspan(1);
        return value;
    }

    /// Network order.
    template <typename T>
    T number() {
        std::make_unsigned_t<T> value = 0;
        for (size_t i = 0; i < sizeof(T); ++i)
            value = static_cast<std::make_unsigned_t<T>>(uint64_t{value} << 8 | byte());
        return static_cast<T>(value);
    }

    /// One of these.
    template <typename T, size_t Count>
    T oneOf(const std::array<T, Count>& values) {
        return values[byte() % Count];
    }

    /// At most `count` bytes; fewer if fewer are left.
    Span bytes(size_t count) {
        const Span taken = m_rest.first(std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(taken.size());
        return taken;
    }

    Span rest() { return bytes(m_rest.size()); }

 private:
    Span m_rest;
};

/// Crashes unless `holds`, so that the fuzzer keeps the input.
inline void require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "violated: %s\n", what);
    abort();
}

/// The result of a call that fails.
inline int fail(int error) {
    errno = error;
    return -1;
}

}  // namespace fuzz

#endif
