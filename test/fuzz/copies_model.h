// SPDX-License-Identifier: MIT
// What the platform is to make of copies and the messages that refuse them: a model for the fuzz
// targets, which knows the rules and none of the platform's code.
#ifndef PMTUD_TEST_FUZZ_COPIES_MODEL_H
#define PMTUD_TEST_FUZZ_COPIES_MODEL_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>

#include "input.h"
#include "link_message.h"
#include "log_message.h"
#include "netlink_message.h"
#include "pktd_record.h"

namespace fuzz {

/// Of the prefix of a copy, pmtud:VLAN; 0 of any other.
inline int vlanOfPrefix(const std::string& prefix) {
    if (prefix.substr(0, 6) != "pmtud:") return 0;
    const auto found = vlansByName().find("bcm0." + prefix.substr(6));
    return found == vlansByName().end() ? 0 : found->second;
}

/// A copy that waits for the message that refuses it.
struct Kept {
    uint32_t ingress = 0;
    int egressVlan = 0;
    std::array<uint8_t, 12> addresses{};
    Bytes packet;
    bool used = false;

    /// What the packet's header claims, or what was copied if that is more.
    std::size_t packetSize() const {
        const std::size_t claimed =
            packet[0] / 16 == 4 ? packet[2] * 256U + packet[3] : 40U + packet[4] * 256U + packet[5];
        return std::max(claimed, packet.size());
    }
};

class CopiesModel {
 public:
    bool keep(const Message& message, int vlan) {
        if (message.ingress < 1 || message.ingress > 0x7FFFFFFF) return false;
        if (headerOf(message.payload) == 0 || message.payload.size() > 1500) return false;
        Kept kept;
        kept.ingress = message.ingress;
        kept.egressVlan = vlan;
        kept.packet.assign(message.payload.begin(), message.payload.end());
        // The rules cut at 1,500 bytes and nowhere else.
        if (kept.packet.size() < 1500 && kept.packetSize() > kept.packet.size()) return false;
        const std::size_t known = std::min<std::size_t>(12, message.linkHeader.size());
        std::copy_n(message.linkHeader.begin(), known, kept.addresses.begin());
        m_kept.push_front(std::move(kept));
        if (m_kept.size() > 128) m_kept.pop_back();
        return true;
    }

    /// The newest that has not been used; null if there is none.
    const Kept* take(Span quote) {
        if (headerOf(quote) == 0) return nullptr;
        const auto isIt = [&](const Kept& kept) {
            return !kept.used && quotes(quote, kept.packet);
        };
        const auto found = std::find_if(m_kept.begin(), m_kept.end(), isIt);
        if (found == m_kept.end()) return nullptr;
        found->used = true;
        return &*found;
    }

 private:
    // IPv4: but for the header's checksum and the options, into which the kernel may write.
    static bool quotes(Span quote, Span packet) {
        const bool isIpv4 = packet[0] / 16 == 4;
        const std::size_t header = headerOf(packet);
        for (std::size_t i = 0; i < quote.size() && i < packet.size(); ++i) {
            const bool isFree = isIpv4 && (i == 10 || i == 11 || (i >= 20 && i < header));
            if (!isFree && quote[i] != packet[i]) return false;
        }
        return true;
    }

    std::deque<Kept> m_kept;  // the newest first
};

/// The frame as it must be, and the record's fields.
struct Built {
    Bytes bytes;
    int32_t port = 0;
    int32_t proto = 0;
    int32_t vid = 0;
    int32_t egress = 0;
};

/// The packet with the header that the message quotes, behind an Ethernet header with one tag.
inline Built expectedFrame(const Kept& kept, int ingressVlan, uint32_t egress, Span quote) {
    const unsigned type = kept.packet[0] / 16 == 4 ? 0x0800 : 0x86DD;
    Built built;
    built.bytes.assign(kept.addresses.begin(), kept.addresses.end());
    for (const unsigned number : {0x8100U, static_cast<unsigned>(ingressVlan), type}) {
        built.bytes.push_back(static_cast<uint8_t>(number / 256));
        built.bytes.push_back(static_cast<uint8_t>(number % 256));
    }
    const Span header = quote.first(headerOf(quote));
    const Span rest = Span(kept.packet).subspan(header.size());
    built.bytes.insert(built.bytes.end(), header.begin(), header.end());
    built.bytes.insert(built.bytes.end(), rest.begin(), rest.end());
    built.bytes.resize(18 + kept.packetSize());
    built.port = static_cast<int32_t>(kept.ingress - 1);
    built.proto = static_cast<int32_t>(type);
    built.vid = ingressVlan;
    built.egress = static_cast<int32_t>(egress);
    return built;
}

inline bool same(Span left, Span right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

inline bool isZero(Span bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

/// A reader that trusts an IPv6 header reads 65,593 bytes, whatever the size of the frame.
inline void checkFrame(const st_pktd_shm_queue_entry_data_t& record, const uint8_t* frame,
                       std::size_t size, const Built& built) {
    constexpr std::size_t kReadable = 18 + 40 + 65535;
    require(size == built.bytes.size(), "size of the frame");
    require(same({frame, size}, built.bytes), "bytes of the frame");
    require(isZero({frame + size, kReadable - size}), "zeros beyond the frame");
    const st_pktd_shm_queue_entry_ctrl_t& control = record.ctrl;
    require(control.port == built.port && control.proto == built.proto, "port and protocol");
    require(control.vid == built.vid && control.vtag == built.vid, "VLAN");
    require(control.egress == built.egress && control.is_trunk == 0, "egress, and no trunk");
}

}  // namespace fuzz

#endif
