// SPDX-License-Identifier: MIT
// Fuzzes the header views and their dumps; the memory after the bytes that they may read is
// guarded.
#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <string>

#include "dumps.h"
#include "expected_text.h"
#include "guarded_memory.h"
#include "input.h"
#include "reference.h"

using fuzz::Input;
using fuzz::require;
using fuzz::Span;
using packets::GuardedMemory;

namespace {

constexpr size_t kLargestIpv6Packet = 40 + 65535;

/// printf takes long over a large dump, of which only the bytes are compared.
constexpr size_t kLargestForPrintf = 128;

GuardedMemory& memory() {
    static GuardedMemory guarded(kLargestIpv6Packet);
    return guarded;
}

template <typename View>
std::string inserted(const View& view) {
    std::ostringstream os;
    os << view;
    return os.str();
}

// As reference::hex, which takes long over many bytes.
std::string hexOf(const uint8_t* bytes, size_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) text += ' ';
        text += kDigits[bytes[i] / 16];
        text += kDigits[bytes[i] % 16];
    }
    return text;
}

// Each view is read to its last field; unit/net compares the fields.

void viewEthernet(Span bytes) {
    const uint8_t* const b = memory().place(bytes, 18);
    const EthVlanHeader eth(b);
    require(eth.proto() == b[16] * 256U + b[17], "EtherType");
    require(ethDump(eth) == reference::ethDump(b), "dump of the Ethernet header");
    require(inserted(eth) == reference::ethDump(b), "insertion of the Ethernet header");
}

void viewIpv4(Span bytes) {
    const uint8_t* const b = memory().place(bytes, 20);
    const Ipv4Header ip(b);
    require(ip.totalLength() == b[2] * 256U + b[3], "total length");
    require(memcmp(ip.dst().to_bytes().data(), b + 16, 4) == 0, "IPv4 destination");
}

void dumpIpv4(Span bytes) {
    const uint8_t* const b = memory().place(bytes, 60);
    const std::string dump = ipv4Dump(Ipv4Header(b));
    require(dump == reference::ipv4Dump(b), "dump of the IPv4 header");
    require(inserted(Ipv4Header(b)) == dump, "insertion of the IPv4 header");
}

void viewIpv6(Span bytes) {
    const uint8_t* const b = memory().place(bytes, 40);
    const Ipv6Header ip(b);
    require(ip.totalLength() == b[4] * 256U + b[5] + 40, "total length");
    require(memcmp(ip.dst().to_bytes().data(), b + 24, 16) == 0, "IPv6 destination");
}

void dumpIpv6(Span bytes) {
    const unsigned high = bytes.size() > 4 ? bytes[4] : 0;
    const unsigned low = bytes.size() > 5 ? bytes[5] : 0;
    const size_t size = 40 + high * 256 + low;
    const uint8_t* const b = memory().place(bytes, size);
    const std::string dump = ipv6Dump(Ipv6Header(b));
    if (size <= kLargestForPrintf) {
        require(inserted(Ipv6Header(b)) == dump, "insertion of the IPv6 header");
        require(dump == reference::ipv6Dump(b), "dump of the IPv6 header");
        return;
    }
    require(dump.starts_with("\n===== [IPv6 DUMP] =====\ndata[" + std::to_string(size) + "]: [" +
                             hexOf(b, size) + "]\nVersion: "),
            "the bytes of a large IPv6 packet in its dump");
}

void dumpBytes(Span all) {
    const Span bytes = all.first(std::min(all.size(), kLargestIpv6Packet));
    const uint8_t* const b = memory().place(bytes, bytes.size());
    require(hexDump(b, bytes.size()) == hexOf(b, bytes.size()), "two digits per byte");
    if (bytes.size() <= kLargestForPrintf)
        require(byteDump(b, bytes.size()) == reference::shortHex(b, bytes.size()), "short digits");
}

void writeAddress(Span bytes) {
    const uint8_t* const b = memory().place(bytes, 6);
    const auto& address = *reinterpret_cast<const ether_addr*>(b);
    require(macToString(address) == reference::mac(b), "two digits per octet");
    require(inserted(address) == reference::shortMac(b), "no leading zeros");
}

void writeNumber(Input input) {
    const auto value = input.number<int32_t>();
    const std::string expected = expected::text("%d [%#x]", value, static_cast<unsigned>(value));
    require(decHex(value) == expected, "a number in decimal and hexadecimal");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    constexpr std::array<void (*)(Span), 7> kReaders = {
        viewEthernet, viewIpv4, dumpIpv4, viewIpv6, dumpIpv6, dumpBytes, writeAddress};
    const size_t which = input.byte() % 8;
    if (which < kReaders.size())
        kReaders[which](input.rest());
    else
        writeNumber(input);
    return 0;
}
