# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# Which interfaces are served, as they come, go and change.

# lab_serves' opposite, for a condition.
does_not_serve() {
    ! lab_serves "$@"
}

InterfacesThatAppearLaterAreServed() {
    lab_machines
    lab_start_serving "$daemon"
    lab_connect a 10 1500
    lab_connect b 20 1400
    lab_program_hardware
    expect "the rules follow" lab_within 5 lab_serves 20 1400
    expect_answered_with 1400 1500
}

InterfaceThatVanishesIsLetGoAndServedWhenItIsBack() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    ip -n switch link delete bcm0.20
    expect "the rules follow" lab_within 5 does_not_serve 20 1400
    forget_mtu
    expect_match "ping" "$(by_family 'From 10\.0\.10\.1 .*Net Unreachable' \
        'From 2001:db8:10::1 .*No route')" "$(ping_size 1500)"
    lab_connect b 20 1350
    expect "the rules follow" lab_within 5 lab_serves 20 1350
    expect_answered_with 1350 1500
    expect "the daemon is alive" test -d "/proc/$lab_daemon"
}

# The kernel fills its answers up (RFC 1812 section 4.3.2.3; RFC 4443 section 2.4(c)).
readonly kernels_own='length (556|1240)$'

# build_with_mtus INGRESS EGRESS
# Without the hardware's silence: the kernel answers what the daemon leaves to it.
build_with_mtus() {
    lab_build_links "$1" "$2"
    lab_start_serving "$daemon"
    start_capture
}

expect_kernels_own() {
    await_errors
    expect_match "the answer" "(mtu $1\)?), $kernels_own" "$(errors)"
}

# expect_daemons_own MTU LENGTH_OF_IPV6
expect_daemons_own() {
    await_errors
    expect_match "the answer" "(mtu $1\)?), length $(by_family 68 "$2")\$" "$(errors)"
}

MtuOf575IsLeftToTheKernel() { # IPv4 only
    build_with_mtus 1500 575
    expect_answered_with 575 1500
    expect_kernels_own 575
}

MtuOf576IsServed() { # IPv4 only
    build_with_mtus 1500 576
    expect_answered_with 576 1500
    expect_daemons_own 576 576
}

MtuOf16383IsServed() {
    build_with_mtus 20000 16383
    expect_answered_with 16383 18000
    expect_daemons_own 16383 1500
}

MtuOf16384IsLeftToTheKernel() {
    build_with_mtus 20000 16384
    expect_answered_with 16384 18000
    expect_kernels_own 16384
}

MtuThatComesIntoTheRangeIsServed() {
    build_with_mtus 20000 17000
    expect "the VLAN is not served" does_not_serve 20 17000
    ip -n switch link set bcm0.20 mtu 16000
    expect "the rules follow" lab_within 5 lab_serves 20 16000
    expect_answered_with 16000 18000
    expect_daemons_own 16000 1500
}

# build_with_egress_named NAME
build_with_egress_named() {
    lab_build_links 1500 1400
    ip -n switch link set bcm0.20 down
    ip -n switch link set bcm0.20 name "$1"
    ip -n switch link set "$1" up
    # IPv6 addresses go when an interface goes down.
    ip -n switch -6 address replace 2001:db8:20::1/64 dev "$1" nodad
    expect "the link" lab_within 5 lab_has_carrier switch "$1"
    lab_start_serving "$daemon"
    start_capture
}

InterfaceNamedWithoutANumberIsLeftToTheKernel() {
    build_with_egress_named bcm0.x
    expect_answered_with 1400 1500
    expect_kernels_own 1400
}

InterfaceNumberedBeyondTheLastVlanIsLeftToTheKernel() {
    build_with_egress_named bcm0.4095
    expect_answered_with 1400 1500
    expect_kernels_own 1400
}

InterfaceThatIsNoVlanIsLeftToTheKernel() {
    build_with_egress_named eth0
    expect_answered_with 1400 1500
    expect_kernels_own 1400
}

InterfaceRenamedToAVlanIsServed() {
    build_with_egress_named wire20
    ip -n switch link set wire20 down
    ip -n switch link set wire20 name bcm0.20
    ip -n switch link set bcm0.20 up
    ip -n switch -6 address replace 2001:db8:20::1/64 dev bcm0.20 nodad
    expect "the rules follow" lab_within 5 lab_serves 20 1400
    expect "the link" lab_within 5 lab_has_carrier switch bcm0.20
    expect_answered_with 1400 1500
    expect_daemons_own 1400 1400
}

# rename_port VLAN NAME
rename_port() {
    ip -n switch link set "bcm0.$1" down
    ip -n switch link set "bcm0.$1" name "$2"
    ip -n switch link set "$2" up
    ip -n switch -6 address replace "$(lab_address 6 "$1" 1)/64" dev "$2" nodad
    expect "the link" lab_within 5 lab_has_carrier switch "$2"
}

# name_vlan add|del VLAN
name_vlan() {
    ip -n switch link property "$1" dev "eth0.$2" altname "bcm0.$2"
}

# Sends small packets to host b until it is told to stop; each must come back.
send_without_loss() {
    while [[ ! -e $LAB_FILES/stop ]]; do
        lab_on a ping -q -c 100 -i 0.01 -W 10 -n "$(destination)" >>"$LAB_FILES/traffic"
    done
}

rounds_of_traffic() {
    grep -c 'packets transmitted' "$LAB_FILES/traffic"
}

has_rounds_of_traffic() {
    (($(rounds_of_traffic) >= $1))
}

InterfacesWithAlternativeNamesAreServedFromThenOnWithoutLoss() {
    lab_build_links 1500 1400
    rename_port 10 eth0.10
    rename_port 20 eth0.20
    lab_await_ready
    lab_start_serving "$daemon"
    : >"$LAB_FILES/traffic"
    send_without_loss &
    local -r traffic=$!
    expect "traffic" lab_within 30 has_rounds_of_traffic 1
    name_vlan add 20
    name_vlan add 10
    expect "the rules follow" lab_within 5 lab_serves 20 1400
    expect "the rules follow" lab_within 5 lab_serves 10 1500
    start_capture
    expect_answered_with 1400 1500
    expect_daemons_own 1400 1400
    expect "traffic" lab_within 30 has_rounds_of_traffic $(($(rounds_of_traffic) + 1))
    touch "$LAB_FILES/stop"
    wait "$traffic"
    expect_equal "rounds with a loss" "" \
        "$(grep 'packets transmitted' "$LAB_FILES/traffic" | grep -v ' 0% packet loss')"
    expect_match "the log" "   Dest VLAN ID: 20$" "$(lab_syslog)"
}

InterfaceWhoseAlternativeNameIsTakenAwayIsLeftToTheKernel() {
    lab_build_links 1500 1400
    rename_port 20 eth0.20
    lab_await_ready
    name_vlan add 20
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    name_vlan del 20
    expect "the rules follow" lab_within 5 does_not_serve 20 1400
    forget_mtu
    start_capture
    expect_answered_with 1400 1500
    expect_kernels_own 1400
}
