// SPDX-License-Identifier: MIT
// What the receive callback gets: a queue record and a tagged frame.
#include "frame.h"

#include <linux/if_ether.h>

#include <algorithm>

#include "ip_packet.h"

namespace pmtud_linux {

namespace {

void putBigEndian(uint8_t* to, uint16_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

}  // namespace

void Frame::build(const Copy& copy, int ingressVlan, uint32_t egress,
                  std::span<const uint8_t> quote) {
    const uint16_t type = ipVersion(copy.packet()) == 4 ? ETH_P_IP : ETH_P_IPV6;
    uint8_t* const bytes = m_bytes.data();
    std::copy(copy.addresses.begin(), copy.addresses.end(), bytes);
    putBigEndian(bytes + 12, ETH_P_8021Q);
    putBigEndian(bytes + 14, static_cast<uint16_t>(ingressVlan));
    putBigEndian(bytes + 16, type);
    uint8_t* const packet = bytes + kHeaderSize;
    std::copy_n(copy.bytes.begin(), copy.size, packet);
    std::copy_n(quote.begin(), std::min(ipHeaderSize(quote), copy.size), packet);

    const size_t written = kHeaderSize + copy.size;
    if (m_written > written) std::fill(bytes + written, bytes + m_written, uint8_t{0});
    m_written = written;
    m_size = kHeaderSize + copy.packetSize();

    // The record counts ports from 0; the kernel counts interfaces from 1.
    st_pktd_shm_queue_entry_ctrl_t& control = m_record.ctrl;
    control.port = static_cast<int32_t>(copy.ingress) - 1;
    control.proto = type;
    control.vid = ingressVlan;
    control.vtag = static_cast<uint16_t>(ingressVlan);
    control.egress = static_cast<int32_t>(egress);
}

}  // namespace pmtud_linux
