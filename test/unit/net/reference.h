// SPDX-License-Identifier: MIT
// The text forms of headers as printf and inet_ntop write them, to compare the daemon's with.
#ifndef PMTUD_TEST_REFERENCE_H
#define PMTUD_TEST_REFERENCE_H

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "expected_text.h"

namespace reference {

using expected::text;

/// "name: 69 [0x45]"; printf's # leaves the prefix out for zero as well.
inline std::string field(const char* name, unsigned value) {
    return text("%s: %u [%#x]", name, value, value);
}

inline std::string hex(const uint8_t* bytes, size_t count) {
    std::string all;
    for (size_t i = 0; i < count; ++i) all += text(i == 0 ? "%02x" : " %02x", bytes[i]);
    return all;
}

/// Without leading zeros.
inline std::string shortHex(const uint8_t* bytes, size_t count) {
    std::string all;
    for (size_t i = 0; i < count; ++i) all += text(i == 0 ? "%x" : " %x", bytes[i]);
    return all;
}

inline std::string mac(const uint8_t* b) {
    return text("%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
}

/// As ether_ntoa_r of glibc: without leading zeros.
inline std::string shortMac(const uint8_t* b) {
    return text("%x:%x:%x:%x:%x:%x", b[0], b[1], b[2], b[3], b[4], b[5]);
}

inline std::string ipv4(const uint8_t* b) { return text("%u.%u.%u.%u", b[0], b[1], b[2], b[3]); }

inline std::string ipv6(const uint8_t* b) {
    char all[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, b, all, sizeof all);
}

inline std::string ethDump(const uint8_t* b) {
    const unsigned tag = b[14] * 256U + b[15];
    std::string dump = "\n===== [ETH DUMP] =====\n";
    dump += "data[18]: [" + hex(b, 18) + "]\n";
    dump += "dest: " + shortMac(b) + "\n";
    dump += "source: " + shortMac(b + 6) + "\n";
    dump += field("vlan_tpid", b[12] * 256U + b[13]) + "\n";
    dump += field("vlan_tci", tag) + "\n";
    dump += field("  vlan_pcp", tag / 8192) + "\n";
    dump += field("  vlan_dei", tag / 4096 % 2) + "\n";
    dump += field("  vlan_id", tag % 4096) + "\n";
    dump += field("proto", b[16] * 256U + b[17]) + "\n";
    return dump;
}

inline std::string ipv4Dump(const uint8_t* b) {
    const unsigned flagWord = b[6] * 256U + b[7];
    std::string dump = "\n===== [IPv4 DUMP] =====\n";
    dump += "data[60]: [" + hex(b, 60) + "]\n";
    dump += field("Version", b[0] / 16U) + "\n";
    dump += field("IHL raw", b[0] % 16U) + field("/ IHL", b[0] % 16U * 4U) + "\n";
    dump += field("TOS", b[1]) + "\n";
    dump += field("Total Length", b[2] * 256U + b[3]) + "\n";
    dump += field("Id", b[4] * 256U + b[5]) + "\n";
    dump += field("Flags", flagWord / 8192);
    dump += text(", DF=%u, MF=%u\n", flagWord / 16384 % 2, flagWord / 8192 % 2);
    dump += field("Fragment offset", flagWord % 8192) + "\n";
    dump += field("TTL", b[8]) + "\n";
    dump += field("Protocol", b[9]) + "\n";
    dump += field("Checksum", b[10] * 256U + b[11]) + "\n";
    dump += "Src: " + ipv4(b + 12) + "\n";
    dump += "Dst: " + ipv4(b + 16) + "\n";
    return dump;
}

inline std::string ipv6Dump(const uint8_t* b) {
    const unsigned payloadLength = b[4] * 256U + b[5];
    std::string dump = "\n===== [IPv6 DUMP] =====\n";
    dump += text("data[%u]: [", payloadLength + 40) + hex(b, payloadLength + 40) + "]\n";
    dump += field("Version", b[0] / 16U) + "\n";
    dump += "Traffic Class: 0 [0]\n";
    dump += field("Flow Label", b[1] % 16U * 65536U + b[2] * 256U + b[3]) + "\n";
    dump += field("Total Length", payloadLength) + "\n\n";
    dump += field("Next Header", b[6]) + "\n";
    dump += field("Hop Limit", b[7]) + "\n";
    dump += "Src: " + ipv6(b + 8) + "\n";
    dump += "Dst: " + ipv6(b + 24) + "\n";
    return dump;
}

}  // namespace reference

#endif
