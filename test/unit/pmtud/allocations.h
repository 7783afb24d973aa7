// SPDX-License-Identifier: MIT
// The test program's own operator new: counts what is alive, and fails when it is told to.
#ifndef PMTUD_TEST_ALLOCATIONS_H
#define PMTUD_TEST_ALLOCATIONS_H

namespace allocations {

/// Blocks taken with operator new and not yet given back.
long alive();

/// Makes the next operator new throw std::bad_alloc.
void failNext();

}  // namespace allocations

#endif
