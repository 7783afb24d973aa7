// SPDX-License-Identifier: MIT
// A model of the VLANs that the platform must know after what its link socket delivered.
#ifndef PMTUD_TEST_FUZZ_LINKS_MODEL_H
#define PMTUD_TEST_FUZZ_LINKS_MODEL_H

#include <set>

#include "netlink_message.h"

namespace fuzz {

/// The VLAN of an interface's name, or 0.
inline int vlanOfName(const std::string& name) {
    const long vlan = name.starts_with("bcm0.") ? strtol(&name[5], nullptr, 10) : 0;
    const bool isVlan = vlan >= 1 && vlan <= 4094 && name == "bcm0." + std::to_string(vlan);
    return isVlan ? static_cast<int>(vlan) : 0;
}

/// The VLAN of a copy's prefix, pmtud:VLAN; 0 for any other prefix.
inline int vlanOfPrefix(const std::string& prefix) {
    return prefix.substr(0, 6) == "pmtud:" ? vlanOfName("bcm0." + prefix.substr(6)) : 0;
}

/// A name belongs to one interface; an interface counts as the lowest VLAN among its names.
inline void follow(pmtud_linux::Vlans& vlans, const pmtud_linux::Link& link) {
    std::erase_if(vlans, [&](const auto& known) { return known.second.ifindex == link.ifindex; });
    std::set<int> named = {vlanOfName(link.name)};
    for (const std::string& name : link.alternativeNames) named.insert(vlanOfName(name));
    named.erase(0);
    if (link.gone || !link.ethernet || named.empty()) return;
    const int next = named.size() == 1 ? 0 : *++named.begin();
    vlans[*named.begin()] = {link.ifindex, link.mtu, link.inVrf, next};
}

/// The VLAN of the interface, or 0.
inline int vlanOf(const pmtud_linux::Vlans& vlans, uint32_t ifindex) {
    for (const auto& [number, vlan] : vlans)
        if (vlan.ifindex == ifindex) return number;
    return 0;
}

/// Changes are applied until one is lost. Then the socket is emptied and a list is requested, up to
/// ten times while lists are doubtful: interrupted, or with a loss. A doubtful list counts until
/// the next one; a list that does not end never counts.
class LinksModel {
 public:
    uint32_t sequence() const { return m_sequence; }
    bool isListing() const { return m_phase == Phase::kListing; }
    /// The interfaces are out of date, and the platform must try again.
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
        if (m_phase != Phase::kFollowing || !m_isStale) return;
        m_phase = Phase::kEmptying;
        m_attempts = 0;
    }

    void takeLoss() { (isListing() ? m_isDoubtful : m_isStale) = true; }

    void timeOut() { endList(false); }

    void take(const std::vector<Span>& messages) {
        bool isDone = false;
        for (const Span message : messages) {
            if (isListing() && load<uint32_t>(message, 8) == m_sequence) {
                if ((load<uint16_t>(message, 6) & NLM_F_DUMP_INTR) != 0) m_isDoubtful = true;
                if (load<uint16_t>(message, 4) == NLMSG_DONE) isDone = true;
            }
            const auto link = expectedLink(message);
            if (link && m_phase != Phase::kEmptying) follow(isListing() ? m_fresh : m_vlans, *link);
        }
        if (!isDone) return;
        m_vlans = m_fresh;
        if (m_isDoubtful && ++m_attempts < 10)
            m_phase = Phase::kEmptying;
        else
            endList(!m_isDoubtful);
    }

 private:
    enum class Phase { kEmptying, kListing, kFollowing };

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
    pmtud_linux::Vlans m_fresh;  // the list so far
};

}  // namespace fuzz

#endif
