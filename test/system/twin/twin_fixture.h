// SPDX-License-Identifier: MIT
// What all twin tests expect of two routers, and tests defined by a table of cases.
#ifndef PMTUD_TWIN_FIXTURE_H
#define PMTUD_TWIN_FIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "play.h"
#include "twins.h"

namespace twin {

/// Feeds both routers, with hardware that tells senders itself and with mute hardware.
/// `told` is how many "too big" messages the router without the daemon sends.
void expectAlike(Twins& twins, size_t told);

void expectNoDifference(const Comparison& result);

/// For rules that drop answers, and for more packets than the limits leave to the daemon: every
/// packet is answered once, by the daemon or the kernel.
Comparison expectTold(const std::string& lines, size_t told);

struct Variant {
    const char* name;
    size_t told;
    std::vector<std::string> words;  ///< for $1, $2 ... in the case's lines
};

/// What play() plays, and how many "too big" messages the senders receive.
struct Case {
    std::string name;
    size_t told;
    std::string lines;
    std::vector<Variant> variants = {};
};

inline void PrintTo(const Case& one, std::ostream* out) { *out << one.lines; }

/// A case for each variant.
std::vector<Case> expanded(const std::vector<Case>& cases);

class Alike : public testing::TestWithParam<Case> {};

inline std::string nameOf(const testing::TestParamInfo<Case>& info) { return info.param.name; }

}  // namespace twin

#endif
