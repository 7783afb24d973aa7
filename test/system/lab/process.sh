# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# The daemon as a process: what it says when it cannot serve, and how it ends.

# What it wrote to standard error, without the time at the start and CR at the end of each line.
said() {
    sed -E -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9] //' -e 's/\r$//' "$lab_daemon_output"
}

has_said() {
    grep -Fq -- "$1" "$lab_daemon_output"
}

# expect_refused RESULT [LINE_BEFORE]
expect_refused() {
    local lines
    lines="ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()]"
    lines+=" Could not initialize SHM queue, ret=$1"$'\n'
    lines+="ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM"
    expect "it says so" lab_within 5 has_said 'Could not initialize SHM'$'\r'
    expect_equal "standard error" "${2:+$2$'\n'}$lines" "$(said)"
    expect "it stays" test -d "/proc/$lab_daemon"
}

WithoutPrivilegesItSaysSoAndStays() { # IPv4 only
    lab_build
    lab_start_daemon "$daemon" setpriv --bounding-set=-net_admin,-net_raw
    expect_refused -1
    expect "it has no rules" lab_has_let_go
}

WithoutNetAdminItSaysSoAndStays() { # IPv4 only
    lab_build
    lab_start_daemon "$daemon" setpriv --bounding-set=-net_admin
    expect_refused -1
    expect "it has no rules" lab_has_let_go
}

WithItsTwoPrivilegesItServes() {
    lab_build
    lab_start_serving "$daemon" setpriv --inh-caps=-all --bounding-set=-all,+net_admin,+net_raw
    expect_line "its capabilities" $'CapEff:\t0000000000003000' "$(<"/proc/$lab_daemon/status")"
    expect_answered_with 1400 1500
}

SecondInstanceSaysSoAndStaysAndTheFirstServes() {
    lab_build
    lab_start_serving "$daemon"
    lab_start_daemon "$daemon"
    expect_refused -16 'ERROR: [main:52 | int main()] another instance is already running'
    expect_answered_with 1400 1500
}

AfterSigkillItsTableIsGoneAndTheKernelAnswers() {
    lab_build_links 1500 1400
    lab_start_serving "$daemon"
    lab_kill_daemon
    expect_equal "tables" "" "$(lab_on switch nft list tables)"
    expect_answered_with 1400 1500
}

AfterSigtermItsTableIsGone() { # IPv4 only
    lab_build
    lab_start_serving "$daemon"
    kill -TERM "$lab_daemon"
    expect "it ends" lab_within 5 lab_is_gone "$lab_daemon"
    expect_equal "tables" "table inet hardware" "$(lab_on switch nft list tables)"
}

AfterSigkillItStartsAgain() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    lab_kill_daemon
    forget_mtu
    lab_start_serving "$daemon"
    expect_equal "standard error" "" "$(said)"
    expect_answered_with 1400 1500
}

ItIsSilentOnStandardErrorWhileItServes() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    expect_equal "standard error" "" "$(said)"
}

SystemLogTellsOfTheAnswer() {
    lab_build
    lab_start_serving "$daemon"
    local egress host_mac switch_mac
    host_mac=$(lab_on a cat /sys/class/net/eth0/address)
    switch_mac=$(lab_on switch cat /sys/class/net/bcm0.10/address)
    egress=$(lab_on switch cat /sys/class/net/bcm0.20/ifindex)
    expect_answered_with 1400 1500
    expect "the last line" lab_within 5 lab_syslog_has 'message sent to source'
    expect_equal "system log" "89 PMTUD-Prot: Received frame of size: 1518
89 PMTUD-Prot: Frame Src MAC: $host_mac, Dest MAC: $switch_mac, Rx VLAN: 10, Tx egress: $egress
$(by_family '89 PMTUD-Prot: Received IPv4 packet len 1518:
89 PMTUD-Prot:    From: 10.0.10.2
89 PMTUD-Prot:    To: 10.0.20.2
89 PMTUD-Prot:    Dest VLAN ID: 20
89 PMTUD-Prot:    Dest VLAN MTU: 1400
89 PMTUD-Prot: Creating ICMP Dest. Unreach. Need Frag. message. MTU size: 1400
89 PMTUD-Prot: ICMP message sent to source 10.0.10.2' \
        '89 PMTUD-Prot: Received IPv6 packet len 1518:
89 PMTUD-Prot:    From: 2001:db8:10::2
89 PMTUD-Prot:    To: 2001:db8:20::2
89 PMTUD-Prot:    Dest VLAN ID: 20
89 PMTUD-Prot:    Dest VLAN MTU: 1400
89 PMTUD-Prot: Creating ICMPv6 Packet Too Big message. MTU size: 1400
89 PMTUD-Prot: ICMPv6 message sent to source 2001:db8:10::2')" "$(lab_syslog)"
}
