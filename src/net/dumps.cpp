// SPDX-License-Identifier: MIT
// Header fields, addresses and whole headers as text, for log messages.
#include "dumps.h"

#include <netinet/ether.h>

#include <array>
#include <boost/system/system_error.hpp>
#include <iomanip>
#include <sstream>

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHexByte(std::string& text, uint8_t byte) {
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xF];
}

/// If an address cannot be converted, the dump ends before it, and the line is still written.
/// Some versions of Boost.Asio throw instead; this makes them behave like the others.
template <typename Address>
std::ostream& insertAddress(std::ostream& os, const Address& address) {
    try {
        return os << address;
    } catch (const boost::system::system_error&) {
        os.setstate(std::ios_base::failbit);
        return os;
    }
}

}  // namespace

std::string decHex(int32_t value) {
    std::ostringstream os;
    os << value << " [" << std::showbase << std::hex << value << "]";
    return os.str();
}

std::string hexDump(const uint8_t* bytes, size_t count) {
    std::string text;
    text.reserve(count * 3);
    for (size_t i = 0; i < count; ++i) {
        if (i != 0) text += ' ';
        appendHexByte(text, bytes[i]);
    }
    return text;
}

std::string byteDump(const void* start, size_t count) {
    const auto* const bytes = static_cast<const uint8_t*>(start);
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        if (i != 0) text += ' ';
        if (bytes[i] >= 0x10) text += kHexDigits[bytes[i] >> 4];
        text += kHexDigits[bytes[i] & 0xF];
    }
    return text;
}

std::string macToString(const ether_addr& address) {
    std::string text;
    text.reserve(sizeof "ff:ff:ff:ff:ff:ff");
    for (const uint8_t octet : address.ether_addr_octet) {
        if (!text.empty()) text += ':';
        appendHexByte(text, octet);
    }
    return text;
}

std::ostream& operator<<(std::ostream& os, const ether_addr& address) {
    std::array<char, sizeof "ff:ff:ff:ff:ff:ff"> text;
    return os << ether_ntoa_r(&address, text.data());
}

std::string ethDump(const EthVlanHeader& header) {
    std::ostringstream os;
    os << "\n===== [ETH DUMP] =====" << std::endl;
    os << "data[" << header.size() << "]: [" << hexDump(header.data(), header.size()) << "]"
       << std::endl;
    os << "dest: " << *header.dest() << std::endl;
    os << "source: " << *header.source() << std::endl;
    os << "vlan_tpid: " << decHex(header.vlan_tpid()) << std::endl;
    os << "vlan_tci: " << decHex(header.vlan_tci()) << std::endl;
    os << "  vlan_pcp: " << decHex(header.vlan_pcp()) << std::endl;
    os << "  vlan_dei: " << decHex(header.vlan_dei() ? 1 : 0) << std::endl;
    os << "  vlan_id: " << decHex(header.vlan_id()) << std::endl;
    os << "proto: " << decHex(header.proto()) << std::endl;
    return os.str();
}

std::string ipv4Dump(const Ipv4Header& header) {
    std::ostringstream os;
    os << "\n===== [IPv4 DUMP] =====" << std::endl;
    os << "data[" << header.size() << "]: [" << hexDump(header.data(), header.size()) << "]"
       << std::endl;
    os << "Version: " << decHex(header.version()) << std::endl;
    // The missing space before the slash is intentional: scripts match this line.
    os << "IHL raw: " << decHex(header.ihlRaw())
       << "/ IHL: " << decHex(static_cast<int32_t>(header.ihl())) << std::endl;
    os << "TOS: " << decHex(header.tos()) << std::endl;
    os << "Total Length: " << decHex(header.totalLength()) << std::endl;
    os << "Id: " << decHex(header.id()) << std::endl;
    os << "Flags: " << decHex(header.flags()) << ", DF=" << header.df() << ", MF=" << header.mf()
       << std::endl;
    os << "Fragment offset: " << decHex(header.fragmentOffset()) << std::endl;
    os << "TTL: " << decHex(header.ttl()) << std::endl;
    os << "Protocol: " << decHex(header.protocol()) << std::endl;
    os << "Checksum: " << decHex(header.checksum()) << std::endl;
    insertAddress(os << "Src: ", header.src()) << std::endl;
    insertAddress(os << "Dst: ", header.dst()) << std::endl;
    return os.str();
}

std::string ipv6Dump(const Ipv6Header& header) {
    std::ostringstream os;
    os << "\n===== [IPv6 DUMP] =====" << std::endl;
    os << "data[" << header.totalLength() << "]: [" << hexDump(header.data(), header.totalLength())
       << "]" << std::endl;
    os << "Version: " << decHex(header.version()) << std::endl;
    os << "Traffic Class: " << decHex(header.trafficClass()) << std::endl;
    os << "Flow Label: " << decHex(static_cast<int32_t>(header.flowLabel())) << std::endl;
    // The payload length under this label and the empty line after it are intentional.
    os << "Total Length: " << decHex(header.payloadLength()) << std::endl << std::endl;
    os << "Next Header: " << decHex(header.nextHeader()) << std::endl;
    os << "Hop Limit: " << decHex(header.hopLimit()) << std::endl;
    insertAddress(os << "Src: ", header.src()) << std::endl;
    insertAddress(os << "Dst: ", header.dst()) << std::endl;
    return os.str();
}

std::ostream& operator<<(std::ostream& os, const EthVlanHeader& header) {
    return os << ethDump(header);
}

std::ostream& operator<<(std::ostream& os, const Ipv4Header& header) {
    return os << ipv4Dump(header);
}

std::ostream& operator<<(std::ostream& os, const Ipv6Header& header) {
    return os << ipv6Dump(header);
}
