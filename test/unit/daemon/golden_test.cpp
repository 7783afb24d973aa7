// SPDX-License-Identifier: MIT
// One scripted run: all that leaves the daemon, in order, against a checked-in text.
#include <cstring>
#include <fstream>
#include <iterator>

#include "run.h"

namespace {

using run::Frame;

class GoldenRun : public run::Daemon {
 protected:
    /// The frame's section.
    static std::string received(const Frame& frame, const st_pktd_shm_queue_entry_data_t& record,
                                const char* title, int32_t level) {
        fake::Journal journal(level);
        receive(journal, frame, record);
        std::string text = "== " + std::string(title) + "\n";
        for (const std::string& entry : journal.entries) {
            text += entry + (entry.ends_with("\r\n") ? "" : "\n");
        }
        return text;
    }
};

/// A record whose dump is the same in either byte order.
st_pktd_shm_queue_entry_data_t symmetricRecord() {
    st_pktd_shm_queue_entry_data_t record;
    memset(&record, 0x0a, sizeof record);
    return record;
}

TEST_F(GoldenRun, HasEveryLineEveryCallAndEveryMessageInTheSameOrderOnEveryMachine) {
    std::string text;
    for (const Frame& frame : run::frames()) {
        text += received(frame, recordOf(frame), frame.title.c_str(), frame.threshold);
    }
    text += received(run::ipv4(), symmetricRecord(), "the first packet at DEBUG4", qv::DEBUG4);

    std::ifstream file(PMTUD_GOLDEN_FILE, std::ios::binary);
    if (text != std::string(std::istreambuf_iterator<char>(file), {})) {
        std::ofstream(PMTUD_GOLDEN_ACTUAL, std::ios::binary) << text;
        FAIL() << "differs; see: diff -u " PMTUD_GOLDEN_FILE " " PMTUD_GOLDEN_ACTUAL;
    }
}

}  // namespace
