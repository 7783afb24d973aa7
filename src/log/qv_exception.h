// SPDX-License-Identifier: MIT
// The framework's error class.
#ifndef PMTUD_QV_EXCEPTION_H
#define PMTUD_QV_EXCEPTION_H

#include <stdexcept>

namespace qv {

/// Deliberately inherits privately: a handler for std::exception does not catch it.
class exception : private std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
    using std::runtime_error::what;
};

}  // namespace qv

#endif
