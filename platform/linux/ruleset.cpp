// SPDX-License-Identifier: MIT
// The nftables rules that pick the packets to dispatch, as text for libnftables.
//
// The way of a packet through the table:
//
//   prerouting ─► from-bcm0.I ─► to-bcm0.E ─► oversized ─► oversized-ipv4 / -ipv6
//      │ short, or    │ merged      │ fits        │ the kernel's, or never answered
//      │ not from     ▼             ▼             ▼
//      ▼ a VLAN     accept        accept        accept / drop      else: mark, log, drop
//    accept
//
// "accept" leaves the packet to the kernel, and to the other tables, as if this table
// were not there.  The VLANs are found by three hash lookups, however many there are.
//
// The ingress chains return to the prerouting chain, which looks up the egress, instead of
// going on to it themselves: the kernel walks the chains when it checks a change, along every
// way that a packet can take, and those would be all ingress times all egress VLANs.
#include "ruleset.h"

#include "vlan_name.h"

namespace pmtud_linux {

namespace {

bool isDispatched(const Vlan& vlan) { return vlan.mtu >= minimumMtu && vlan.mtu <= maximumMtu; }

// The names of one VLAN's chains and the key of its map elements.
struct Names {
    explicit Names(int vlan)
        : interface(nameOfVlan(vlan)),
          key("\"" + interface + "\""),
          from("from-" + interface),
          to("to-" + interface) {}

    std::string interface;  // the name of the VLAN's counter as well
    std::string key;
    std::string from;
    std::string to;
};

std::string command(const char* what, const std::string& about) {
    return std::string(what) + " inet pmtud " + about + "\n";
}

// A packet longer than the MTU of its ingress was merged by receive offload: the kernel
// knows the packets that it was made of.
std::string ingressRules(const Names& names, const Vlan& vlan) {
    return command("add rule",
                   names.from + " meta length > " + std::to_string(vlan.mtu) + " counter accept");
}

std::string egressRules(const Names& names, const Vlan& vlan) {
    return command("add rule",
                   names.to + " meta length <= " + std::to_string(vlan.mtu) + " accept") +
           command("add rule", names.to + " jump oversized") +
           command("add rule", names.to + " meta mark set " + std::to_string(vlan.ifindex) +
                                   " log group " + std::to_string(logGroup) + " snaplen " +
                                   std::to_string(snapLength) + " queue-threshold 1 counter name " +
                                   names.key + " drop");
}

std::string addIngress(const Names& names, const Vlan& vlan) {
    return command("add chain", names.from) + ingressRules(names, vlan) +
           command("add element", "vlans { " + names.key + " }") +
           command("add element", "ingress { " + names.key + " : jump " + names.from + " }");
}

std::string addEgress(const Names& names, const Vlan& vlan) {
    return command("add counter", names.interface) + command("add chain", names.to) +
           egressRules(names, vlan) +
           command("add element", "egress { " + names.key + " : goto " + names.to + " }");
}

std::string removeIngress(const Names& names) {
    return command("delete element", "vlans { " + names.key + " }") +
           command("delete element", "ingress { " + names.key + " }") +
           command("delete chain", names.from);
}

std::string removeEgress(const Names& names) {
    return command("delete element", "egress { " + names.key + " }") +
           command("delete chain", names.to) + command("delete counter", names.interface);
}

std::string addVlan(const Names& names, const Vlan& vlan) {
    return addIngress(names, vlan) + (isDispatched(vlan) ? addEgress(names, vlan) : "");
}

std::string removeVlan(const Names& names, const Vlan& vlan) {
    return removeIngress(names) + (isDispatched(vlan) ? removeEgress(names) : "");
}

std::string changeEgress(const Names& names, const Vlan& before, const Vlan& after) {
    if (!isDispatched(before)) return isDispatched(after) ? addEgress(names, after) : "";
    if (!isDispatched(after)) return removeEgress(names);
    return command("flush chain", names.to) + egressRules(names, after);
}

std::string changeVlan(const Names& names, const Vlan& before, const Vlan& after) {
    if (before.mtu == after.mtu && before.ifindex == after.ifindex) return {};
    std::string commands;
    if (before.mtu != after.mtu)
        commands += command("flush chain", names.from) + ingressRules(names, after);
    return commands + changeEgress(names, before, after);
}

}  // namespace

std::string tableText() {
    // "typeof": the keys of "type ifname" are not what "fib ... oifname" yields.
    return R"(table inet pmtud {
    flags owner

    set vlans {
        type ifname
    }

    map ingress {
        type ifname : verdict
    }

    map egress {
        typeof fib daddr oifname : verdict
    }

    chain prerouting {
        type filter hook prerouting priority raw; policy accept;
        meta length <= 576 accept comment "fits every VLAN"
        iifname != @vlans accept
        iifname vmap @ingress
        fib daddr oifname vmap @egress
    }

    chain oversized {
        meta nfproto vmap { ipv4 : goto oversized-ipv4, ipv6 : goto oversized-ipv6 }
    }

    chain oversized-ipv4 {
        ip frag-off & 0x4000 == 0 accept comment "no DF: the kernel fragments"
        ip ttl <= 1 accept comment "the kernel answers Time Exceeded"
        ip daddr 224.0.0.0/4 counter accept comment "multicast: the kernel delivers or routes it and answers nothing"
        fib daddr type broadcast counter accept comment "broadcast: the kernel delivers it and answers nothing"
        meta pkttype != host counter drop comment "RFC 1122 3.2.2: link-layer broadcast"
        ip frag-off & 0x1fff != 0 counter drop comment "RFC 1122 3.2.2: not the first fragment"
        ip saddr { 0.0.0.0/8, 127.0.0.0/8, 224.0.0.0/4, 240.0.0.0/4 } counter drop comment "RFC 1122 3.2.2: source is no single host"
        fib saddr type broadcast counter drop comment "RFC 1122 3.2.2: source is a broadcast address"
        icmp type { 3, 4, 5, 11, 12 } counter drop comment "RFC 1122 3.2.2: ICMP error"
    }

    chain oversized-ipv6 {
        ip6 hoplimit <= 1 accept comment "the kernel answers Time Exceeded"
        ip6 saddr fe80::/10 accept comment "RFC 4443 3.1: the kernel answers beyond scope"
        ip6 daddr ff00::/8 counter accept comment "multicast: the kernel delivers or routes it"
        meta pkttype != host counter drop comment "link-layer multicast of a unicast packet"
        ip6 saddr { ::, ::1, ff00::/8 } counter drop comment "RFC 4443 2.4(e.6): source is no single node"
        fib saddr type anycast counter drop comment "RFC 4443 2.4(e.6): source is an anycast address"
        icmpv6 type < 128 counter drop comment "RFC 4443 2.4(e.1): ICMPv6 error"
        icmpv6 type 137 counter drop comment "RFC 4443 2.4(e.2): redirect"
    }
}
)";
}

std::string changeText(const Vlans& before, const Vlans& after) {
    std::string commands;
    auto old = before.begin();
    auto now = after.begin();
    while (old != before.end() || now != after.end()) {
        if (now == after.end() || (old != before.end() && old->first < now->first)) {
            commands += removeVlan(Names(old->first), old->second);
            ++old;
        } else if (old == before.end() || now->first < old->first) {
            commands += addVlan(Names(now->first), now->second);
            ++now;
        } else {
            commands += changeVlan(Names(now->first), old->second, now->second);
            ++old;
            ++now;
        }
    }
    return commands;
}

}  // namespace pmtud_linux
