// SPDX-License-Identifier: MIT
// The engine: answers each frame that is too large for its egress VLAN.
#ifndef PMTUD_PMTUD_APP_H
#define PMTUD_PMTUD_APP_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "SHM_Wrapper.h"
#include "VlanConfig.h"

/// The daemon's only application object. Its fields never change after construction. Frames are
/// handled on the adapter's receive thread, so it must outlive that thread.
class PMTUDApp {
 public:
    /// Registers itself as the adapter's frame handler. It owns neither object.
    PMTUDApp(VlanConfig* cfg, SHM_Wrapper* shm);
    PMTUDApp(const PMTUDApp&) = delete;
    PMTUDApp& operator=(const PMTUDApp&) = delete;
    ~PMTUDApp();

    /// Attaches the queues and returns at once. False: it failed, and no frames will arrive.
    bool run() const;

    /// Answers the Ethernet frame with one 802.1Q tag that begins at `frame` and was received with
    /// `len` bytes. Every frame's verdict is discard. Returns the result of the reply below, or
    /// false for a frame that is neither IPv4 nor IPv6. The queue decides which frames are too
    /// large: every IP frame passed here is answered.
    bool handleFrame(uint8_t& frame, size_t len);

    /// Sends ICMP Destination Unreachable, code 4 (RFC 792; next-hop MTU: RFC 1191 section 4), to
    /// the source of the frame's IPv4 packet. Reads 78 bytes of the frame, whatever `len` is. True:
    /// passed to the socket, even if sending failed.
    bool sendICMP4PacketTooBig(uint8_t* frame, size_t len);

    /// Sends ICMPv6 Packet Too Big (RFC 4443 section 3.2) to the source of the frame's IPv6 packet,
    /// via the VLAN on which the frame arrived. Reads as much of the frame as the packet's length
    /// field gives, up to 1,510 bytes, whatever `len` is. True: sent.
    bool sendICMP6PacketTooBig(const uint8_t& frame, size_t len);

 private:
    friend struct PMTUDAppFields;

    VlanConfig* m_cfg;
    SHM_Wrapper* m_shm;
    SHM_Handler* m_handler = nullptr;
    // Nothing reads these two; they are part of the object's layout.
    [[maybe_unused]] std::array<uint8_t, 12> m_spare;
    [[maybe_unused]] int32_t m_fd = -1;
    uint32_t m_logId;
    std::string m_logName;
};

#endif
