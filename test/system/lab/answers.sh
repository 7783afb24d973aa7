# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family is run_case's
# What a user sees of the daemon, end to end: answers, transfers, its log, and failed starts.

readonly daemon=$1

LargePacketIsAnsweredAndTheAnswerLogged() {
    lab_build
    lab_start_serving "$daemon"
    start_capture
    local host_mac switch_mac egress
    host_mac=$(lab_on a cat /sys/class/net/eth0/address)
    switch_mac=$(lab_on switch cat /sys/class/net/bcm0.10/address)
    egress=$(lab_on switch cat /sys/class/net/bcm0.20/ifindex)
    expect_answered_with 1400 1500
    expect_learned_from_daemon
    local details
    details=$(lab_captured -vv "$(by_family 'icmp[icmptype] == 3' 'icmp6[icmp6type] == 2')")
    expect_match "tcpdump" "$(by_family '^IP \(.*ttl 64,.* length 88\)' \
        'hlim 64,.* \[icmp6 sum ok\]')" "$details"
    if grep -q 'wrong icmp cksum' <<<"$details"; then fail "$details"; fi
    expect "the last line" lab_within 5 lab_syslog_has 'message sent to source'
    expect_equal "system log" "89 PMTUD-Prot: Received frame of size: 1518
89 PMTUD-Prot: Frame Src MAC: $host_mac, Dest MAC: $switch_mac, Rx VLAN: 10, Tx egress: $egress
89 PMTUD-Prot: Received IPv$family packet len 1518:
89 PMTUD-Prot:    From: $(by_family 10.0.10.2 2001:db8:10::2)
89 PMTUD-Prot:    To: $(destination)
89 PMTUD-Prot:    Dest VLAN ID: 20
89 PMTUD-Prot:    Dest VLAN MTU: 1400
89 PMTUD-Prot: Creating $(by_family 'ICMP Dest. Unreach. Need Frag.' 'ICMPv6 Packet Too Big') \
message. MTU size: 1400
89 PMTUD-Prot: ICMP$(by_family '' v6) message sent to source \
$(by_family 10.0.10.2 2001:db8:10::2)" "$(lab_syslog)"
    expect_equal "standard error" "" "$(said)"
}

StalledTcpTransferResumesOnceTheDaemonRuns() {
    lab_build
    lab_start_transfer "$family" 100000
    expect "the connection is made" lab_within 5 lab_transfer_is_connected
    if lab_within 1 lab_transfer_is_over; then fail "the transfer did not stall"; fi
    lab_start_serving "$daemon"
    expect "the transfer finishes" lab_within 20 lab_transfer_is_over
    expect_equal "what host b received" "$(sha256sum <"$lab_sent")" "$(sha256sum <"$lab_received")"
}

# The opposite of lab_serves, for use as a condition.
does_not_serve() {
    ! lab_serves "$@"
}

VanishedInterfaceIsDroppedAndServedAgainWhenItReturns() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    ip -n switch link delete bcm0.20
    expect "the rules follow" lab_within 5 does_not_serve 20 1400
    ip -n a "-$family" route flush cache
    expect_match "ping" "$(by_family 'From 10\.0\.10\.1 .*Net Unreachable' \
        'From 2001:db8:10::1 .*No route')" "$(ping_size 1500)"
    lab_connect b 20 1350
    expect "the rules follow" lab_within 5 lab_serves 20 1350
    expect_answered_with 1350 1500
    expect "the daemon is alive" test -d "/proc/$lab_daemon"
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

# expect_answer_of LENGTH
# The length shows whether the daemon or the kernel answered: the kernel quotes as much as RFC 1812
# section 4.3.2.3 and RFC 4443 section 2.4(c) allow.
expect_answer_of() {
    await_errors
    expect_match "the answer" "\(?mtu 1400\)?, length $1\$" "$(errors)"
}

# Sends small packets to host b until the file "stop" exists; each must be answered.
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

InterfacesGivenAlternativeNamesAreServedWithoutLoss() {
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
    expect_answer_of "$(by_family 68 1400)"
    expect "traffic" lab_within 30 has_rounds_of_traffic $(($(rounds_of_traffic) + 1))
    touch "$LAB_FILES/stop"
    wait "$traffic"
    expect_equal "rounds with a loss" "" \
        "$(grep 'packets transmitted' "$LAB_FILES/traffic" | grep -v ' 0% packet loss')"
    expect_match "the log" "   Dest VLAN ID: 20$" "$(lab_syslog)"
}

InterfaceWhoseAlternativeNameIsRemovedIsLeftToTheKernel() {
    lab_build_links 1500 1400
    rename_port 20 eth0.20
    lab_await_ready
    name_vlan add 20
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    name_vlan del 20
    expect "the rules follow" lab_within 5 does_not_serve 20 1400
    start_capture
    expect_answered_with 1400 1500
    expect_answer_of "$(by_family 556 1240)"
}

EgressThatIsDownIsLeftToTheKernelAndServedOnceItIsUp() {
    lab_build
    ip -n switch link set bcm0.20 down
    lab_start_serving "$daemon"
    expect_line "ping of 1500 bytes" "$(by_family \
        'From 10.0.10.1 icmp_seq=1 Destination Net Unreachable' \
        'From 2001:db8:10::1 icmp_seq=1 Destination unreachable: No route')" "$(ping_size 1500)"
    expect_equal "system log" "" "$(lab_syslog)"
    ip -n switch link set bcm0.20 up
    expect "the link" lab_within 5 lab_has_carrier switch bcm0.20
    # It lost its IPv6 address when the link went down.
    ip -n switch address replace 2001:db8:20::1/64 dev bcm0.20 nodad
    expect_answered_with 1400 1500
    expect_equal "standard error" "" "$(said)"
}

WithoutPrivilegesItReportsTheFailureAndKeepsRunning() { # IPv4 only
    lab_build
    lab_start_daemon "$daemon" setpriv --bounding-set=-net_admin,-net_raw
    expect_refused -1
    expect "it has no rules" lab_has_let_go
}

SecondInstanceReportsTheFailureAndKeepsRunningWhileTheFirstServes() { # IPv4 only
    lab_build
    lab_start_serving "$daemon"
    lab_start_daemon "$daemon"
    expect_refused -16 'ERROR: [main:52 | int main()] another instance is already running'
    expect_answered_with 1400 1500
}
