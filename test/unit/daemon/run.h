// SPDX-License-Identifier: MIT
// The daemon's objects, the frames that they are given, and each frame's entries in run.golden.
#ifndef PMTUD_TEST_RUN_H
#define PMTUD_TEST_RUN_H

#include <string>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "daemon_test.h"

namespace run {

using daemon_test::upTo;
using daemon_test::without;
using fake::Journal;
using packets::Bytes;
using packets::Lines;
using packets::operator+;

/// A frame's first bytes; zeros follow, up to its length and as far as any dump reads.
struct Frame {
    std::string title;
    size_t length;
    Bytes bytes;
    int egress;
    int32_t threshold = qv::DEBUG;
};

/// All frames of the run; the first two are answered.
const std::vector<Frame>& frames();
inline const Frame& ipv4() { return frames()[0]; }
inline const Frame& ipv6() { return frames()[1]; }

st_pktd_shm_queue_entry_data_t recordOf(const Frame& frame);

/// This frame's entries in run.golden: everything that leaves the daemon at its threshold.
const Lines& golden(const Frame& frame);

/// The same at WARNING: without the lines of the file channel.
Lines goldenAtWarning(const Frame& frame);

/// The daemon's objects, as the process entry makes them, on fakes that have seen nothing.
class Daemon : public testing::Test {
 protected:
    Daemon();
    ~Daemon() override;

    /// Has the queue deliver the frame. The journal ends with "verdict 7" or, if an exception
    /// leaves the callback, with "throws " and its text.
    static void receive(Journal& journal, const Frame& frame);
    static void receive(Journal& journal, const Frame& frame,
                        const st_pktd_shm_queue_entry_data_t& record);

    VlanConfig config;
    PMTUDApp app{&config, getShmWrapperApp()};
};

/// Either of the frames that are answered.
class AnsweredFrame : public Daemon, public testing::WithParamInterface<const Frame*> {
 protected:
    const Frame& frame = *GetParam();
};

inline const auto kAnsweredFrames = testing::Values(&ipv4(), &ipv6());
inline std::string familyOf(const Frame& frame) { return &frame == &ipv4() ? "OfIpv4" : "OfIpv6"; }
constexpr auto kFamily = [](const auto& instance) { return familyOf(*instance.param); };

}  // namespace run

#endif
