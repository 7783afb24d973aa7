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

/// The daemon's one application object.  Its fields never change after construction; frames
/// are handled on the adapter's receive thread, so it must live as long as that thread.
class PMTUDApp {
 public:
    /// Registers itself as the adapter's frame handler.  Neither object is owned.
    PMTUDApp(VlanConfig* cfg, SHM_Wrapper* shm);
    PMTUDApp(const PMTUDApp&) = delete;
    PMTUDApp& operator=(const PMTUDApp&) = delete;
    ~PMTUDApp();

    /// Attaches the queues and returns at once; false: that failed, and frames won't come.
    bool run() const;

    /// Answers the Ethernet frame, with one 802.1Q tag, that begins at `frame` and was
    /// received with `len` bytes.  Every frame's verdict is discard.  The result is
    /// that of the reply below; false for a frame that is neither IPv4 nor IPv6.
    /// The queue decides which frames are too large: all IP frames given here are answered.
    bool handleFrame(uint8_t& frame, size_t len);

    /// Sends ICMP Destination Unreachable, code 4 (RFC 792; next-hop MTU: RFC 1191 section
    /// 4), to the source of the frame's IPv4 packet.  Reads 78 bytes of frame whatever `len`
    /// says.  True: handed to the socket, even if the send failed.
    bool sendICMP4PacketTooBig(uint8_t* frame, size_t len);

    /// Sends ICMPv6 Packet Too Big (RFC 4443 section 3.2) to the source of the frame's IPv6
    /// packet, by the VLAN that the frame came in on.  Reads as much of the frame as the
    /// packet's own length says, up to 1,510 bytes, whatever `len` says.  True: sent.
    bool sendICMP6PacketTooBig(const uint8_t& frame, size_t len);

 private:
    friend struct PMTUDAppFields;

    VlanConfig* m_cfg;
    SHM_Wrapper* m_shm;
    SHM_Handler* m_handler = nullptr;
    // Nothing reads these two; they belong to the object's layout.
    [[maybe_unused]] std::array<uint8_t, 12> m_spare;
    [[maybe_unused]] int32_t m_fd = -1;
    uint32_t m_logId;
    std::string m_logName;
};

#endif
