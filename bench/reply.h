// SPDX-License-Identifier: MIT
// Sends replies one after the other, for a tool that counts what they do.
#ifndef PMTUD_BENCH_REPLY_H
#define PMTUD_BENCH_REPLY_H

namespace bench {

/// Answers the oversized packet of the family, 4 or 6, that many times.
void reply(int family, int count);

}  // namespace bench

#endif
