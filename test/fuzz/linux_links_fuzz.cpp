// SPDX-License-Identifier: MIT
// Fuzzes how the Linux platform reads link messages, and what follows: interfaces, VLANs and rules.
#include <net/if.h>

#include "guarded_memory.h"
#include "link.h"
#include "links_model.h"
#include "rules_model.h"
#include "ruleset.h"
#include "vlan_name.h"

using fuzz::require;
using pmtud_linux::Link;
using pmtud_linux::Vlans;

namespace {

constexpr int kMessagesPerInput = 24;

std::optional<Link> decode(Span message) {
    static packets::GuardedMemory memory(fuzz::kLargestMessage);
    // Netlink pads every message; libmnl reads the last attribute into the padding.
    const size_t size = Netlink::aligned(fuzz::load<uint32_t>(message));
    const uint8_t* const placed = memory.place(message, size);
    auto read = pmtud_linux::decodeLink(*reinterpret_cast<const nlmsghdr*>(placed));
    const auto expected = fuzz::expectedLink({placed, size});
    require(read.has_value() == expected.has_value(), "which messages describe an interface");
    if (!read) return read;
    require(read->ifindex == expected->ifindex && read->gone == expected->gone, "which one");
    require(read->ethernet == expected->ethernet, "its hardware");
    require(read->name == expected->name, "its name");
    require(read->alternativeNames == expected->alternativeNames, "its alternative names");
    require(read->mtu == expected->mtu && read->inVrf == expected->inVrf, "its MTU and its master");
    return read;
}

void checkName(const std::string& name) {
    const int vlan = fuzz::vlanOfName(name);
    require(pmtud_linux::vlanOfName(name) == vlan, "the VLAN of a name");
    if (vlan != 0) require(pmtud_linux::nameOfVlan(vlan) == name, "the name of a VLAN");
    ifreq request;
    memset(&request, 0xEE, sizeof request);
    const bool fits = name.size() < sizeof request.ifr_name;
    require(pmtud_linux::putName(request, name) == fits, "which names fit a request");
    std::string expected = name;
    expected.resize(sizeof request.ifr_name);
    require(!fits || memcmp(request.ifr_name, expected.data(), expected.size()) == 0,
            "the name in a request");
}

void apply(const Link& link, pmtud_linux::VlanTable& table, Vlans& expected) {
    const Vlans before = expected;
    fuzz::follow(expected, link);
    require(table.apply(link) == (before != expected), "whether the table changed");
    require(table.vlans() == expected, "the VLANs in the table");
    for (uint32_t ifindex = 0; ifindex < 10; ++ifindex)
        require(table.vlanOf(ifindex) == fuzz::vlanOf(expected, ifindex), "an interface's VLAN");
}

void change(fuzz::RulesModel& rules, const Vlans& before, const Vlans& after) {
    const fuzz::RulesModel old = rules;
    rules.run(pmtud_linux::changeText(before, after));
    rules.requireKept(old);
    require(rules == fuzz::newTable(after),
            "a change leads to the rules that a new table would have");
    require(pmtud_linux::changeText(after, after).empty(), "without a change there is no command");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    pmtud_linux::VlanTable table;
    Vlans expected;
    Vlans installed;
    fuzz::RulesModel rules = fuzz::emptyTable();
    for (int count = 0; count < kMessagesPerInput && !input.exhausted(); ++count) {
        const Bytes message = fuzz::drawLinkMessage(input);
        if (message.size() < Netlink::kHeader) continue;
        const size_t claimed = fuzz::load<uint32_t>(message);
        if (claimed < Netlink::kHeader || claimed > message.size()) continue;
        const auto link = decode(message);
        if (!link) continue;
        checkName(link->name);
        apply(*link, table, expected);
        // Not after every message, so that a change covers several.
        if (input.byte() % 2 == 0) continue;
        change(rules, installed, table.vlans());
        installed = table.vlans();
    }
    return 0;
}
