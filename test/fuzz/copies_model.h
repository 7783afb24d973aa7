// SPDX-License-Identifier: MIT
// A model of what the platform must do with copies and the messages that refuse them. It uses none
// of the platform's code.
#ifndef PMTUD_TEST_FUZZ_COPIES_MODEL_H
#define PMTUD_TEST_FUZZ_COPIES_MODEL_H

#include <deque>

#include "netlink_message.h"
#include "pktd_record.h"

namespace fuzz {

/// The header of an IPv4 or IPv6 packet, if all of it is there; else 0.
inline size_t headerOf(Span packet) {
    if (packet.size() >= 40 && packet[0] / 16 == 6) return 40;
    if (packet.size() < 20 || packet[0] / 16 != 4) return 0;
    const size_t size = packet[0] % 16 * size_t{4};
    return size >= 20 && size <= packet.size() ? size : 0;
}

/// The packet that an error message quotes: it follows an IP header and 8 bytes.
inline Span quotedBy(Span error) {
    const size_t header = headerOf(error);
    if (header == 0 || error.size() < header + 8) return {};
    return error.subspan(header + 8);
}

/// A copy that waits for the message that refuses it.
struct Kept {
    uint32_t ingress = 0;
    int egressVlan = 0;
    std::array<uint8_t, 12> addresses{};
    Bytes packet;
    bool used = false;

    bool isIpv4() const { return packet[0] / 16 == 4; }

    /// What the packet's header claims, or what was copied if that is more.
    size_t packetSize() const {
        const size_t claimed = isIpv4() ? get16(packet, 2) : 40 + get16(packet, 4);
        return std::max(claimed, packet.size());
    }
};

class CopiesModel {
 public:
    bool keep(const Message& message, int vlan) {
        if (message.ingress < 1 || message.ingress > 0x7FFFFFFF) return false;
        if (headerOf(message.payload) == 0 || message.payload.size() > 1500) return false;
        Kept kept{message.ingress, vlan, {}, cut(message.payload, 0, message.payload.size())};
        // The rules cut at 1,500 bytes and nowhere else.
        if (kept.packet.size() < 1500 && kept.packetSize() > kept.packet.size()) return false;
        const size_t known = std::min<size_t>(12, message.linkHeader.size());
        std::copy_n(message.linkHeader.begin(), known, kept.addresses.begin());
        m_kept.push_front(std::move(kept));
        if (m_kept.size() > 128) m_kept.pop_back();
        return true;
    }

    /// The newest that has not been used; null if there is none.
    const Kept* take(Span quote) {
        if (headerOf(quote) == 0) return nullptr;
        for (Kept& kept : m_kept) {
            if (kept.used || !quotes(quote, kept)) continue;
            kept.used = true;
            return &kept;
        }
        return nullptr;
    }

 private:
    // IPv4: except the header's checksum and the options, which the kernel may change.
    static bool quotes(Span quote, const Kept& kept) {
        const size_t header = headerOf(kept.packet);
        for (size_t i = 0; i < quote.size() && i < kept.packet.size(); ++i) {
            const bool isFree = kept.isIpv4() && (i == 10 || i == 11 || (i >= 20 && i < header));
            if (!isFree && quote[i] != kept.packet[i]) return false;
        }
        return true;
    }

    std::deque<Kept> m_kept;  // the newest first
};

inline bool same(Span left, Span right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

/// The frame is an Ethernet header with one tag, then the packet with the header that the message
/// quotes. A reader that trusts an IPv6 header reads 65,593 bytes, whatever the frame's size.
inline void checkFrame(const st_pktd_shm_queue_entry_data_t& record, const uint8_t* frame,
                       size_t size, const Kept& kept, Span quote) {
    constexpr size_t kReadable = 18 + 40 + 65535;
    const st_pktd_shm_queue_entry_ctrl_t& control = record.ctrl;
    const int type = kept.isIpv4() ? 0x0800 : 0x86DD;
    Bytes expected(kept.addresses.begin(), kept.addresses.end());
    expected.resize(18);
    put16(expected, 12, 0x8100);
    put16(expected, 14, static_cast<size_t>(control.vid));
    put16(expected, 16, static_cast<size_t>(type));
    const size_t header = headerOf(quote);
    expected = expected + cut(quote, 0, header) + cut(kept.packet, header, kept.packet.size());
    expected.resize(18 + kept.packetSize());
    require(same({frame, size}, expected), "size and bytes of the frame");
    static const Bytes zeros(kReadable);
    require(memcmp(frame + size, zeros.data(), kReadable - size) == 0, "zeros beyond the frame");
    require(control.port == static_cast<int32_t>(kept.ingress - 1), "port");
    require(control.proto == type && control.is_trunk == 0, "protocol, and no trunk");
    require(control.vid == control.vtag, "the VLAN and its tag");
}

}  // namespace fuzz

#endif
