// SPDX-License-Identifier: MIT
// Header fields, addresses and whole headers as text, for log messages.
#ifndef PMTUD_DUMPS_H
#define PMTUD_DUMPS_H

#include <net/ethernet.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "EthVlanHeader.h"
#include "Ipv4Header.h"
#include "Ipv6Header.h"

/// The value in decimal and, in brackets, hexadecimal: "69 [0x45]". Zero has no prefix, as with
/// std::showbase: "0 [0]".
std::string decHex(int32_t value);

/// Two lower-case digits per byte, separated by spaces: "00 0a ff". No bytes: "".
std::string hexDump(const uint8_t* bytes, size_t count);

/// Lower-case digits without leading zeros, separated by spaces: "0 a ff". No bytes: "". This is
/// how the queue record's control block is logged.
std::string byteDump(const void* start, size_t count);

/// Two lower-case digits per byte, joined by colons: "00:1a:2b:3c:4d:5e".
std::string macToString(const ether_addr& address);

/// Writes the address as ether_ntoa_r does: "0:1a:2b:3c:4d:5e". Deliberately differs from
/// macToString.
std::ostream& operator<<(std::ostream& os, const ether_addr& address);

/// A title, then one line per field; begins and ends with a line feed. Reads the header's 18 bytes.
std::string ethDump(const EthVlanHeader& header);

/// As ethDump. Reads Ipv4Header::size() bytes, 60, from the start of the header.
std::string ipv4Dump(const Ipv4Header& header);

/// As ethDump. Reads Ipv6Header::totalLength() bytes, up to 65,575, from the start of the header.
std::string ipv6Dump(const Ipv6Header& header);

std::ostream& operator<<(std::ostream& os, const EthVlanHeader& header);
std::ostream& operator<<(std::ostream& os, const Ipv4Header& header);
std::ostream& operator<<(std::ostream& os, const Ipv6Header& header);

#endif
