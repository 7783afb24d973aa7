// SPDX-License-Identifier: MIT
// The text forms of header fields, addresses and whole headers that log messages share.
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

/// The value in decimal and, in brackets, hexadecimal: "69 [0x45]".  Zero has no prefix,
/// as a stream's showbase has it: "0 [0]".
std::string decHex(int32_t value);

/// Two lower-case digits a byte, a blank between bytes: "00 0a ff".  No bytes: "".
std::string hexDump(const uint8_t* bytes, size_t count);

/// Lower-case digits without leading zeros, a blank between bytes: "0 a ff".  No bytes: "".
/// The form of the queue record's control block.
std::string byteDump(const void* start, size_t count);

/// Two lower-case digits a byte, joined by colons: "00:1a:2b:3c:4d:5e".
std::string macToString(const ether_addr& address);

/// Writes what ether_ntoa_r makes of the address: "0:1a:2b:3c:4d:5e".  Differs from
/// macToString on purpose.
std::ostream& operator<<(std::ostream& os, const ether_addr& address);

/// One line a field behind a title, beginning and ending with a line feed.  Reads the
/// header's 18 bytes.
std::string ethDump(const EthVlanHeader& header);

/// As ethDump; reads Ipv4Header::size() bytes, 60, from the header on.
std::string ipv4Dump(const Ipv4Header& header);

/// As ethDump; reads Ipv6Header::totalLength() bytes, up to 65,575, from the header on.
std::string ipv6Dump(const Ipv6Header& header);

std::ostream& operator<<(std::ostream& os, const EthVlanHeader& header);
std::ostream& operator<<(std::ostream& os, const Ipv4Header& header);
std::ostream& operator<<(std::ostream& os, const Ipv6Header& header);

#endif
