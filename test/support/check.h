// SPDX-License-Identifier: MIT
// System calls that must succeed.
#ifndef PMTUD_TEST_SUPPORT_CHECK_H
#define PMTUD_TEST_SUPPORT_CHECK_H

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

namespace machine {

/// Throws std::system_error, by errno, if a call has failed.
inline void check(bool succeeded, std::string_view what) {
    if (!succeeded) throw std::system_error(errno, std::generic_category(), std::string(what));
}

}  // namespace machine

#endif
