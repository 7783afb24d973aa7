# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The switch hardware's part in the black hole: what is too large for its egress VLAN goes nowhere.
#
# The kernel that forwards in the switch's place would answer an oversized packet itself, and
# does so before its forward hook.  These rules drop such a packet earlier, in silence, yet
# behind the daemon's, which see it at priority raw.
#
# As on a switch, what needs more than forwarding goes to the processor, which is the kernel here:
# a packet whose hop limit ends, and an IPv4 packet without DF, which is fragmented.

lab_hardware_rules() {
    cat <<'END'
table inet hardware
delete table inet hardware
table inet hardware {
    chain forwarding {
        type filter hook prerouting priority filter; policy accept;
        ip ttl <= 1 accept comment "to the processor: time exceeded"
        ip6 hoplimit <= 1 accept comment "to the processor: time exceeded"
        ip frag-off & 0x4000 == 0 accept comment "to the processor: fragmentation"
END
    lab_hardware_limits
    printf '    }\n}\n'
}

# One rule for each VLAN, with the MTU that its interface has now.
lab_hardware_limits() {
    local interface mtu
    while read -r interface mtu; do
        echo "        fib daddr oifname \"$interface\" meta length > $mtu counter drop"
    done < <(ip -n switch -o link show |
        sed -nE 's/^[0-9]+: (bcm0\.[0-9]+)[@:].* mtu ([0-9]+) .*/\1 \2/p')
}

lab_program_hardware() {
    lab_hardware_rules | lab_on switch nft -f -
}

# From here on the kernel forwards, and answers, as a router's does.
lab_remove_hardware() {
    lab_on switch nft delete table inet hardware
}
