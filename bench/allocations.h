// SPDX-License-Identifier: MIT
// Counts the allocations of a reply, and shows which of our functions asked for each.
#ifndef PMTUD_BENCH_ALLOCATIONS_H
#define PMTUD_BENCH_ALLOCATIONS_H

namespace bench {

/// Prints, for one reply of the family, a line for each place in this program that allocates:
/// how often, and the place's address in the program's file.
void printAllocations(int family);

}  // namespace bench

#endif
