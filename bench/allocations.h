// SPDX-License-Identifier: MIT
// Counts a reply's allocations, and shows which of our functions made each one.
#ifndef PMTUD_BENCH_ALLOCATIONS_H
#define PMTUD_BENCH_ALLOCATIONS_H

namespace bench {

/// Prints, for one reply of the family, one line per place in this program that allocates: how
/// often, and the place's address in the program file.
void printAllocations(int family);

}  // namespace bench

#endif
