# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Plays the switch hardware in the black hole: it does not forward packets that are too large for
# their egress VLAN, and it is mute, so nobody tells the sender.
#
# Here the kernel forwards in place of the hardware, but it does answer. These rules drop its "too
# big" messages after the daemon's hook has seen them; messages from processes pass.

lab_hardware_rules() {
    cat <<'END'
table inet hardware
delete table inet hardware
table inet hardware {
    chain mute {
        type filter hook postrouting priority 2000000; policy accept;
        meta skuid 0-4294967295 accept comment "sent by a process"
        icmp type destination-unreachable icmp code frag-needed counter drop
        icmpv6 type packet-too-big counter drop
    }
}
END
}

lab_program_hardware() {
    lab_hardware_rules | lab_on switch nft -f -
}

# From now on, the switch's kernel forwards and answers as a router's kernel does.
lab_remove_hardware() {
    lab_on switch nft delete table inet hardware
}
