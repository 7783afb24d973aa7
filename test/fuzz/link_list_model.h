// SPDX-License-Identifier: MIT
// Which interfaces the platform is to know after what its link socket gave it: a model for the
// fuzz targets.
#ifndef PMTUD_TEST_FUZZ_LINK_LIST_MODEL_H
#define PMTUD_TEST_FUZZ_LINK_LIST_MODEL_H

#include <linux/netlink.h>

#include <cstdint>
#include <vector>

#include "input.h"
#include "link_message.h"
#include "netlink_message.h"
#include "vlan_table.h"

namespace fuzz {

/// Changes are applied until one was lost.  Then the socket is emptied, and a list is asked for,
/// ten times at most as long as a list is doubtful: interrupted, or with a loss.  A doubtful list
/// counts until the next one; one that does not end does not.
class LinkListModel {
 public:
    enum class Phase { kEmptying, kListing, kFollowing };

    Phase phase() const { return m_phase; }
    uint32_t sequence() const { return m_sequence; }
    /// The interfaces are out of date, and the platform is to try again.
    bool isStale() const { return m_isStale; }
    const pmtud_linux::Vlans& vlans() const { return m_vlans; }

    void request(uint32_t sequence) {
        require(m_phase == Phase::kEmptying, "the socket is emptied before a list");
        m_phase = Phase::kListing;
        m_sequence = sequence;
        m_fresh.clear();
        m_isDoubtful = false;
    }

    void takeNothing() {
        if (m_phase == Phase::kFollowing && m_isStale) {
            m_phase = Phase::kEmptying;
            m_attempts = 0;
        }
    }

    void takeLoss() {
        if (m_phase == Phase::kListing) m_isDoubtful = true;
        if (m_phase == Phase::kFollowing) m_isStale = true;
    }

    void timeOut() { endList(false); }

    void take(const std::vector<Span>& messages) {
        bool isDone = false;
        for (const Span message : messages) {
            if (m_phase == Phase::kListing && load<uint32_t>(message, 8) == m_sequence) {
                const auto type = load<uint16_t>(message, 4);
                if ((load<uint16_t>(message, 6) & NLM_F_DUMP_INTR) != 0) m_isDoubtful = true;
                if (type == NLMSG_DONE) isDone = true;
            }
            const auto link = expectedLink(message);
            if (link && m_phase == Phase::kListing) follow(m_fresh, *link);
            if (link && m_phase == Phase::kFollowing) follow(m_vlans, *link);
        }
        if (!isDone) return;
        m_vlans = m_fresh;
        if (m_isDoubtful && ++m_attempts < 10) {
            m_phase = Phase::kEmptying;
            return;
        }
        endList(!m_isDoubtful);
    }

 private:
    void endList(bool isWhole) {
        m_phase = Phase::kFollowing;
        m_isStale = !isWhole;
    }

    Phase m_phase = Phase::kEmptying;
    bool m_isStale = false;
    bool m_isDoubtful = false;
    int m_attempts = 0;
    uint32_t m_sequence = 0;
    pmtud_linux::Vlans m_vlans;
    pmtud_linux::Vlans m_fresh;  // as far as the list has come
};

}  // namespace fuzz

#endif
