# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The lab's machines as network namespaces, and the links between them.
#
#      a                         switch                         b
#      eth0 ─── VLAN 10 ─── bcm0.10  bcm0.20 ─── VLAN 20 ─── eth0
#      10.0.10.2            10.0.10.1  10.0.20.1             10.0.20.2
#      2001:db8:10::2       2001:db8:10::1  2001:db8:20::1   2001:db8:20::2
#      MTU 1500                                              MTU 1400

lab_on() {
    local -r machine=$1
    shift
    ip netns exec "$machine" "$@"
}

# lab_address FAMILY VLAN HOST
lab_address() {
    case $1 in
        4) echo "10.0.$2.$3" ;;
        6) echo "2001:db8:$2::$3" ;;
    esac
}

lab_machine() {
    ip netns add "$1"
    ip -n "$1" link set lo up
    # The lab does not depend on the machine's own settings. A connection whose process was killed
    # in the black hole is dropped, so that it does not resume once the black hole is gone.
    lab_on "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=0 net.ipv6.conf.default.disable_ipv6=0 \
        net.ipv6.conf.default.accept_dad=0 net.ipv6.conf.default.accept_ra=0 \
        net.ipv4.ip_no_pmtu_disc=0 net.ipv4.tcp_mtu_probing=0 \
        net.ipv4.tcp_orphan_retries=1 \
        net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0
}

lab_machines() {
    lab_machine a
    lab_machine b
    lab_machine switch
    lab_on switch sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1
}

# Whether the packets on a link look as they would on a wire. If false, each end has a network
# card's default offloads, for throughput measurements.
lab_like_wire=true

# Makes the link behave like a wire: no packet exceeds the MTU, lacks its checksum or is merged.
lab_link_end() {
    local -r machine=$1 interface=$2 mtu=$3
    if "$lab_like_wire"; then
        lab_on "$machine" ethtool -K "$interface" tso off gso off gro off tx off \
            >"$LAB_FILES/ethtool"
        ip -n "$machine" link set "$interface" gso_max_segs 1
    else
        lab_on "$machine" ethtool -K "$interface" tso on gso on gro on tx on >"$LAB_FILES/ethtool"
    fi
    ip -n "$machine" link set "$interface" mtu "$mtu" up
}

lab_give_address() {
    local -r machine=$1 interface=$2 vlan=$3 host=$4
    ip -n "$machine" address add "$(lab_address 4 "$vlan" "$host")/24" dev "$interface"
    # An interface whose MTU is below 1280 carries no IPv6 (RFC 8200 section 5).
    lab_on "$machine" test -d "/proc/sys/net/ipv6/conf/$interface" || return 0
    ip -n "$machine" address add "$(lab_address 6 "$vlan" "$host")/64" dev "$interface" nodad
}

# A host announces the segment size for an MTU of 1500, as if it did not know that its VLAN's MTU is
# smaller. Otherwise no TCP segment would ever be too large.
lab_give_routes() {
    local -r machine=$1 vlan=$2
    ip -n "$machine" route add default via "$(lab_address 4 "$vlan" 1)" advmss 1460
    lab_on "$machine" test -d /proc/sys/net/ipv6/conf/eth0 || return 0
    ip -n "$machine" route add default via "$(lab_address 6 "$vlan" 1)" advmss 1440
}

lab_has_carrier() {
    [[ $(lab_on "$1" cat "/sys/class/net/$2/operstate") == up ]]
}

# lab_connect MACHINE VLAN MTU
# Connects the machine to the switch's interface for that VLAN.
lab_connect() {
    local -r machine=$1 vlan=$2 mtu=$3
    local -r port=bcm0.$vlan
    ip link add name eth0 netns "$machine" type veth peer name "$port" netns switch
    lab_link_end "$machine" eth0 "$mtu"
    lab_link_end switch "$port" "$mtu"
    lab_give_address switch "$port" "$vlan" 1
    lab_give_address "$machine" eth0 "$vlan" 2
    lab_await 5 "the link of VLAN $vlan" lab_has_carrier "$machine" eth0
    lab_await 5 "the link of VLAN $vlan" lab_has_carrier switch "$port"
    lab_give_routes "$machine" "$vlan"
}

# lab_set_mtu MACHINE VLAN MTU
# Sets the MTU at both ends of the machine's link.
lab_set_mtu() {
    local -r machine=$1 vlan=$2 mtu=$3
    ip -n "$machine" link set eth0 mtu "$mtu"
    ip -n switch link set "bcm0.$vlan" mtu "$mtu"
}

lab_has_usable_addresses() {
    local addresses
    addresses=$(ip -n "$1" -6 -o address show tentative) && [[ -z $addresses ]]
}

# lab_passes FAMILY
# Whether host b answers a small packet from host a.
lab_passes() {
    lab_on a ping -c 1 -W 1 -n "$(lab_address "$1" 20 2)" >"$LAB_FILES/ready"
}

lab_has_ipv6() {
    lab_on a test -d /proc/sys/net/ipv6/conf/eth0 && lab_on b test -d /proc/sys/net/ipv6/conf/eth0
}

# Returns once the addresses are usable and a packet has passed in each family. Then all neighbours
# are resolved, and what is shown or tested next does not depend on the machine's load.
lab_await_ready() {
    local machine
    for machine in a b switch; do
        lab_await 30 "the addresses of $machine" lab_has_usable_addresses "$machine"
    done
    lab_await 30 "a packet from a to b over IPv4" lab_passes 4
    lab_has_ipv6 || return 0
    lab_await 30 "a packet from a to b over IPv6" lab_passes 6
}

# lab_build_links INGRESS_MTU EGRESS_MTU
# Builds a switch whose kernel answers as a router's kernel does.
lab_build_links() {
    lab_machines
    lab_connect a 10 "$1"
    lab_connect b 20 "$2"
    lab_await_ready
}

lab_build() {
    lab_build_links 1500 1400
    lab_program_hardware
}
