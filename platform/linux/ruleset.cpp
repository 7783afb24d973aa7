// SPDX-License-Identifier: MIT
// The nftables rules that copy candidates and withdraw the kernel's answers, as text.
//
// A packet's path through the first hook, which runs after all named priorities. If a rule that
// runs even later drops the packet, one copy is wasted. K is 4, 4o or 6:
//
//   prerouting ─► to-bcm0.E ─► candidate ─► copied, and its header remembered in copiedK-MTU
//      │ short,      │ fits      │ may be fragmented, too many,
//      ▼ not ours    ▼           ▼ could not be answered as the kernel would
//    accept        accept      accept
//
// "accept" ends only this table's processing; no packet is ever taken off the forwarding path.
//
// A "too big" message's path through the second hook, which runs after source NAT and after all
// other rules, because they may drop it or the daemon's answer:
//
//   postrouting ─► too-big-ipvN ─► refusedK-MTU ─► withdrawable ─► handed-over: count, log, drop
//                     │ a process's    │ quotes no       │ not the router's own, too many,
//                     ▼                ▼ copied packet   ▼ answers do not leave
//                   count, accept    accept            accept: the kernel has answered
//
// VLANs are found by hash lookups, however many there are. The rules match interface indexes;
// chains and counters are named after VLANs.
#include "ruleset.h"

#include <algorithm>
#include <set>

#include "vlan_name.h"

namespace pmtud_linux {

namespace {

// The key that distinguishes packets, as it is read from the packet (`header`) and from a message
// that quotes the packet (`quoted`). It has 16 bytes, because nft 1.0.6 cannot map a longer key to
// a value. A packet that was not copied may share the key of one that was; its message is then sent
// after all. A message does not remove the key, because the kernel keeps removed keys for up to a
// second and accepts only about 16 equal ones meanwhile.
struct Kind {
    const char* name;
    const char* packets;
    const char* header;
    const char* quoted;
};

constexpr Kind kKinds[] = {
    // Source, destination, start of the transport header.
    {"4", "ip hdrlength 5", "@nh,96,64 . @nh,160,64", "@th,160,64 . @th,224,64"},
    // Source, destination, total length to protocol. Not the options, because the kernel may write
    // into them before it refuses the packet. If the header is longer than 52 bytes, the kernel
    // answers: the 60 bytes that the daemon quotes would lack the 8 bytes of payload that a host
    // needs (RFC 792).
    {"4o", "ip hdrlength 6-13", "@nh,96,32 . @nh,128,32 . @nh,16,64",
     "@th,160,32 . @th,192,32 . @th,80,64"},
    // The second and the last 32 bits of the destination, since address translation may change its
    // prefix or its host part; the 8 bytes after the header.
    {"6", "meta nfproto ipv6", "@nh,224,32 . @nh,288,32 . @nh,320,64",
     "@th,288,32 . @th,352,32 . @th,384,64"},
};

// Padded beyond the length of any interface name, because libnftables treats a number as a name if
// an interface has that name. Quoted, because it reads an unquoted number with leading zeros as
// octal.
std::string indexKey(uint32_t ifindex) {
    const std::string digits = std::to_string(ifindex);
    return "\"" + std::string(16 - digits.size(), '0') + digits + "\"";
}

std::string command(const char* what, const std::string& about) {
    return std::string(what) + " inet pmtud " + about + "\n";
}

std::string copiedMap(const Kind& kind, uint32_t mtu) {
    return std::string("copied") + kind.name + "-" + std::to_string(mtu);
}

std::string refusedMap(const Kind& kind) { return std::string("refused") + kind.name; }

std::string refusedChain(const Kind& kind, uint32_t mtu) {
    return refusedMap(kind) + "-" + std::to_string(mtu);
}

// How many headers a map holds. The kernel frees removed ones only once per second, so there is
// room for all that may be copied in a second; less if there are many MTUs, since the room is
// allocated in advance.
size_t mapSize(size_t mtus) { return size_t{65536} / std::max<size_t>(mtus, 8); }

std::string addMap(const Kind& kind, uint32_t mtu, size_t size) {
    return command("add map", copiedMap(kind, mtu) + " { typeof " + kind.header +
                                  " : meta mark; size " + std::to_string(size) +
                                  "; flags dynamic,timeout; timeout 100ms; }");
}

// The map lookup comes first, so that messages that pass in a flood skip the rest. The limits come
// before the mark is set, so that a message that passes leaves as the kernel made it.
std::string addRefusedChain(const Kind& kind, uint32_t mtu) {
    const std::string map = "@" + copiedMap(kind, mtu);
    const std::string chain = refusedChain(kind, mtu);
    const std::string quoted = kind.quoted;
    return command("add chain", chain) +
           command("add rule", chain + " " + quoted + " != " + map + " accept") +
           command("add rule", chain + " jump withdrawable") +
           command("add rule", chain + " meta mark set " + quoted + " map " + map) +
           command("add rule", chain + " goto handed-over") +
           command("add element",
                   refusedMap(kind) + " { " + std::to_string(mtu) + " : goto " + chain + " }");
}

std::string addMtu(uint32_t mtu, size_t size) {
    std::string commands;
    for (const Kind& kind : kKinds)
        commands += addMap(kind, mtu, size) + addRefusedChain(kind, mtu);
    return commands;
}

std::string removeMtu(uint32_t mtu) {
    std::string commands;
    for (const Kind& kind : kKinds)
        commands +=
            command("delete element", refusedMap(kind) + " { " + std::to_string(mtu) + " }") +
            command("delete chain", refusedChain(kind, mtu)) +
            command("delete map", copiedMap(kind, mtu));
    return commands;
}

std::string copyRule(const Kind& kind, const std::string& chain, const std::string& vlan,
                     uint32_t mtu) {
    return command("add rule", chain + " " + kind.packets + " update @" + copiedMap(kind, mtu) +
                                   " { " + kind.header + " : " + vlan + " } log prefix \"" +
                                   kCopyPrefix + vlan + "\" group " + std::to_string(kLogGroup) +
                                   " snaplen " + std::to_string(kCopySize));
}

std::string chainName(int vlan) { return "to-" + nameOfVlan(vlan); }

std::string egressRules(int vlan, uint32_t mtu) {
    const std::string chain = chainName(vlan);
    std::string rules =
        command("add rule", chain + " meta length <= " + std::to_string(mtu) + " accept") +
        command("add rule", chain + " jump candidate");
    for (const Kind& kind : kKinds) rules += copyRule(kind, chain, std::to_string(vlan), mtu);
    return rules;
}

std::string addIngress(const Vlan& vlan) {
    const std::string key = indexKey(vlan.ifindex);
    return command("add element", "vlans { " + key + " }") +
           (vlan.inVrf ? command("add element", "vrf-ports { " + key + " }") : "");
}

std::string removeIngress(const Vlan& vlan) {
    const std::string key = indexKey(vlan.ifindex);
    return command("delete element", "vlans { " + key + " }") +
           (vlan.inVrf ? command("delete element", "vrf-ports { " + key + " }") : "");
}

std::string addEgressElement(int number, const Vlan& vlan) {
    return command("add element",
                   "egress { " + indexKey(vlan.ifindex) + " : goto " + chainName(number) + " }");
}

std::string removeEgressElement(const Vlan& vlan) {
    return command("delete element", "egress { " + indexKey(vlan.ifindex) + " }");
}

std::string addEgress(int number, const Vlan& vlan) {
    const std::string name = nameOfVlan(number);
    return command("add counter", name) +
           command("add element",
                   "counters { " + std::to_string(number) + " : \"" + name + "\" }") +
           command("add chain", chainName(number)) + egressRules(number, vlan.mtu) +
           addEgressElement(number, vlan);
}

std::string removeEgress(int number, const Vlan& vlan) {
    return removeEgressElement(vlan) + command("delete chain", chainName(number)) +
           command("delete element", "counters { " + std::to_string(number) + " }") +
           command("delete counter", nameOfVlan(number));
}

bool sameIngress(const Vlan* one, const Vlan& other) {
    return one != nullptr && one->ifindex == other.ifindex && one->inVrf == other.inVrf;
}

bool isServed(const Vlan* vlan) { return vlan != nullptr && pmtud_linux::isServed(*vlan); }

// Removes what `before` has and `after`, which may be null, lacks.
std::string dismantle(int number, const Vlan& before, const Vlan* after) {
    std::string commands;
    if (!sameIngress(after, before)) commands += removeIngress(before);
    if (!isServed(before)) return commands;
    if (!isServed(after)) return commands + removeEgress(number, before);
    if (after->ifindex != before.ifindex) commands += removeEgressElement(before);
    return commands;
}

// Adds what `after` has and `before`, which may be null, lacks. A VLAN that was already served
// keeps its counter, so that the count continues.
std::string build(int number, const Vlan* before, const Vlan& after) {
    std::string commands;
    if (!sameIngress(before, after)) commands += addIngress(after);
    if (!isServed(after)) return commands;
    if (!isServed(before)) return commands + addEgress(number, after);
    if (before->mtu != after.mtu)
        commands += command("flush chain", chainName(number)) + egressRules(number, after.mtu);
    if (before->ifindex != after.ifindex) commands += addEgressElement(number, after);
    return commands;
}

const Vlan* find(const Vlans& vlans, int number) {
    const auto found = vlans.find(number);
    return found != vlans.end() ? &found->second : nullptr;
}

std::set<uint32_t> mtusOf(const Vlans& vlans) {
    std::set<uint32_t> mtus;
    for (const auto& [number, vlan] : vlans)
        if (isServed(vlan)) mtus.insert(vlan.mtu);
    return mtus;
}

// Packets that fit the smallest MTU skip everything else.
std::string changeSmallest(const std::set<uint32_t>& before, const std::set<uint32_t>& after) {
    const std::string chain = "fits-every-vlan";
    const uint32_t smallest = after.empty() ? 0 : *after.begin();
    if (smallest == (before.empty() ? 0 : *before.begin())) return {};
    std::string commands = command("flush chain", chain);
    if (smallest != 0)
        commands +=
            command("add rule", chain + " meta length <= " + std::to_string(smallest) + " accept");
    return commands;
}

}  // namespace

std::string tableText() {
    // Protocols are numbers, because libnftables looks names up in /etc/protocols, which a minimal
    // system lacks.
    return std::string(R"(table inet pmtud {
    flags owner

    set vlans {
        type iface_index
    }

    set vrf-ports {
        type iface_index
    }

    map egress {
        typeof fib daddr . mark oif : verdict
    }

    set copying {
        typeof iif
        size 8192
        flags dynamic,timeout
        timeout 10s
    }

    set enough-copies {
        typeof iif
        size 8192
        flags dynamic,timeout
        timeout 100ms
    }

    set answering {
        typeof oif
        size 8192
        flags dynamic,timeout
        timeout 10s
    }

    set enough-answers {
        typeof oif
        size 8192
        flags dynamic,timeout
        timeout 100ms
    }

    set left-to-kernel {
        type iface_index
        flags timeout
    }

    counter answers {
    }

    map counters {
        type mark : counter
    }

    limit all-copies {
        rate over 3000/second burst 2750 packets
    }

    limit all-answers {
        rate over 1500/second burst 2750 packets
    }

    map refused4 {
        typeof icmp mtu : verdict
    }

    map refused4o {
        typeof icmp mtu : verdict
    }

    map refused6 {
        typeof icmpv6 mtu : verdict
    }

    chain prerouting {
        type filter hook prerouting priority 350; policy accept;
        jump fits-every-vlan
        iif @enough-copies accept comment "spares bulk traffic the rest"
        iif != @vlans accept
        fib daddr . mark oif vmap @egress
    }

    chain fits-every-vlan {
    }

    chain candidate {
        ip frag-off & 0x4000 == 0 accept
        update @copying { iif limit rate over 250/second burst 250 packets } goto at-copy-limit
        limit name all-copies accept
        meta nfproto ipv4 iif @vrf-ports accept comment "no way back from outside the VRF"
        meta nfproto ipv6 fib saddr . iif oif missing accept comment "no way back via the ingress"
    }

    chain at-copy-limit {
        add @enough-copies { iif }
        accept
    }

    chain postrouting {
        type filter hook postrouting priority 1000000; policy accept;
        meta l4proto != { 1, 58 } accept comment "neither ICMP nor ICMPv6"
        icmp type destination-unreachable icmp code frag-needed goto too-big-ipv4
        icmpv6 type packet-too-big goto too-big-ipv6
    }

    chain too-big-ipv4 {
        meta skuid 0-4294967295 counter name answers accept comment "a process's"
        oif @enough-copies accept comment "without a copy"
        oif @enough-answers accept comment "spares a flood the rest"
        @th,68,4 5 icmp mtu vmap @refused4
        icmp mtu vmap @refused4o
    }

    chain too-big-ipv6 {
        meta skuid 0-4294967295 counter name answers accept comment "a process's"
        oif @enough-copies accept comment "without a copy"
        oif @enough-answers accept comment "spares a flood the rest"
        icmpv6 mtu vmap @refused6
    }

    chain withdrawable {
        update @answering { oif limit rate over 125/second burst 250 packets } goto at-answer-limit
        oif @left-to-kernel accept
        fib saddr type != local accept comment "not this router's own"
        fib daddr type broadcast accept comment "no process may answer it"
        limit name all-answers accept
    }

    chain at-answer-limit {
        add @enough-answers { oif }
        accept
    }

    chain handed-over {
        counter name meta mark map @counters log prefix ")") +
           kRefusedPrefix + "\" group " + std::to_string(kLogGroup) +
           R"( snaplen 1280 queue-threshold 1 drop
    }
}
)";
}

std::string changeText(const Vlans& before, const Vlans& after) {
    const std::set<uint32_t> oldMtus = mtusOf(before);
    const std::set<uint32_t> newMtus = mtusOf(after);
    const size_t size = mapSize(newMtus.size());
    std::string commands;
    for (const uint32_t mtu : newMtus)
        if (!oldMtus.contains(mtu)) commands += addMtu(mtu, size);

    commands += changeSmallest(oldMtus, newMtus);

    // An interface may have moved from one VLAN to another, so its old elements are removed first.
    for (const auto& [number, vlan] : before)
        commands += dismantle(number, vlan, find(after, number));
    for (const auto& [number, vlan] : after) commands += build(number, find(before, number), vlan);

    for (const uint32_t mtu : oldMtus)
        if (!newMtus.contains(mtu)) commands += removeMtu(mtu);
    return commands;
}

std::string leaveToKernelText(uint32_t ifindex, int seconds) {
    return command("add element", "left-to-kernel { " + indexKey(ifindex) + " timeout " +
                                      std::to_string(seconds) + "s }");
}

}  // namespace pmtud_linux
