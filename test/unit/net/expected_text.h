// SPDX-License-Identifier: MIT
// Formatted text to compare the daemon's with, which comes from streams.
#ifndef PMTUD_TEST_EXPECTED_TEXT_H
#define PMTUD_TEST_EXPECTED_TEXT_H

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace expected {

/// What printf would write of this, up to 4,095 characters.
// Variadic, so that the compiler checks the arguments. NOLINTNEXTLINE(cert-dcl50-cpp)
__attribute__((format(printf, 1, 2))) inline std::string text(const char* format, ...) {
    std::array<char, 4096> buffer;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(buffer.data(), buffer.size(), format, arguments);
    va_end(arguments);
    return buffer.data();
}

}  // namespace expected

#endif
