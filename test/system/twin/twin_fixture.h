// SPDX-License-Identifier: MIT
// The base of all twin tests.
#ifndef PMTUD_TWIN_FIXTURE_H
#define PMTUD_TWIN_FIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "twins.h"

namespace twin {

class TwinTest : public testing::Test {
 public:
    static twin::Run run;

 protected:
    /// Feeds both routers, with hardware that tells senders itself and with mute hardware.
    /// `told` is how many "too big" messages the router without the daemon sends.
    static void expectAlike(Twins& twins, size_t told) {
        for (const bool isMute : {false, true}) {
            SCOPED_TRACE(isMute ? "with mute hardware" : "with hardware that tells senders");
            const Comparison result = twins.compare(isMute);
            EXPECT_EQ(result.told, told) << "by the router without the daemon";
            EXPECT_EQ(result.withdrawn, result.answers) << "answers of the daemon left";
            expectNoDifference(result);
        }
    }

    static void expectNoDifference(const Comparison& result) {
        std::string lines;
        for (const std::string& line : result.differences) lines += '\n' + line;
        EXPECT_TRUE(lines.empty()) << lines;
    }
};

inline const How kKernelOnly{.tellsNobodyIfMute = true};

}  // namespace twin

#endif
