# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_ is lib.sh's
# The steps of the demo, which script/demo narrates.
#
# The script sets `daemon`, the program, and `capture`, the name of the file that descriptor 3 writes
# to; empty: no capture.
: "${daemon:=}" "${capture:=}"

show_lab() {
    story_step "the lab" "two hosts, and a switch whose VLAN 20 takes no more than 1400 bytes"
    cat <<'END'

    host a                       switch                       host b
    eth0 ────── VLAN 10 ──── bcm0.10   bcm0.20 ──── VLAN 20 ────── eth0
    10.0.10.2   MTU 1500     10.0.10.1 10.0.20.1   MTU 1400   10.0.20.2
    2001:db8:10::2           2001:db8:10::1                   2001:db8:20::2
                                       2001:db8:20::1

END
    lab_build
    lab_start_syslog
    if [[ -n $capture ]]; then lab_start_capture /dev/fd/3; fi
    local family
    for family in 4 6; do
        story_run a ping -c 1 -W 10 -n "$(lab_address "$family" 20 2)"
        story_expect "small packets pass" ' 0% packet loss'
    done
}

# show_ping FAMILY SIZE SECONDS
# Sends one ping whose whole packet has that size, and waits up to that long for an answer.
show_ping() {
    local -r headers=$(($1 == 4 ? 28 : 48))
    story_run a ping -c 1 -W "$3" -n -M "do" -s $(($2 - headers)) "$(lab_address "$1" 20 2)"
}

show_black_hole() {
    story_step "the black hole" "pmtud is not running; A sends packets of 1500 bytes to B"
    local family
    for family in 4 6; do
        show_ping "$family" 1500 1
        story_expect "no answer, and no reason given" '^1 packets transmitted, 0 received, 100%'
        story_expect_not "nobody names an MTU" '(too big|mtu ?=)'
        show_transfer "$family" 3
        story_check "the connection is established" lab_transfer_is_connected
        story_check "and not a byte of the file arrives" test "$(lab_bytes_received)" -eq 0
        lab_stop_transfer
    done
}

# show_transfer FAMILY SECONDS
# Runs a transfer for up to that long, and prints every second how much has arrived.
show_transfer() {
    echo
    echo "  a: 1 MiB by TCP over IPv$1 to $(lab_address "$1" 20 2) (socat at both ends)"
    lab_start_transfer "$1" $((1 << 20))
    local -i second
    for ((second = 1; second <= $2; ++second)); do
        if lab_within 1 lab_transfer_is_over; then
            echo "      finished: $(lab_bytes_received) bytes at B"
            return
        fi
        echo "      after $second s: $(lab_bytes_received) of 1048576 bytes at B"
    done
}

show_cure() {
    story_step "the cure" "pmtud is started on the switch"
    echo "  switch\$ pmtud &"
    lab_start_serving "$daemon"
    story_run switch nft list chain inet pmtud to-bcm0.20
    story_expect "its rules know VLAN 20 and its MTU" '<= 1400 '
    local family
    for family in 4 6; do
        show_cure_of "$family"
    done
    show_log
}

show_cure_of() {
    local destination
    destination=$(lab_address "$1" 20 2)
    show_ping "$1" 1500 10
    case $1 in
        4) story_expect "the switch names the MTU" 'From 10\.0\.10\.1 .*Frag needed and DF set \(mtu = 1400\)' ;;
        6) story_expect "the switch names the MTU" 'From 2001:db8:10::1 .*Packet too big: mtu=1400' ;;
    esac
    show_route "$1"
    story_expect "A's kernel has learned it" ' mtu 1400( |$)'
    forget_mtu "$1" "so that TCP has to discover the MTU itself"
    show_transfer "$1" 10
    story_check "the transfer finishes" lab_transfer_is_over
    show_sums
    show_route "$1"
    story_expect "A's kernel has learned it from TCP's segments" ' mtu 1400( |$)'
    forget_mtu "$1" "so that tracepath has to discover the MTU itself"
    story_run a tracepath "-$1" -n "$destination"
    story_expect "the switch names the MTU to tracepath" "$(lab_address "$1" 10 1) .* pmtu 1400"
    story_expect "which reaches B" "$destination .* reached"
}

show_route() {
    story_run a ip route get "$(lab_address "$1" 20 2)"
}

forget_mtu() {
    echo
    echo "  a\$ ip -$1 route flush cache        # $2"
    ip -n a "-$1" route flush cache
}

show_sums() {
    local at_a at_b
    at_a=$(sha256sum <"$lab_sent")
    at_b=$(sha256sum <"$lab_received")
    echo "      sha256 at A: ${at_a%% *}"
    echo "      sha256 at B: ${at_b%% *}"
    story_check "the same bytes at both ends" test "$at_a" = "$at_b"
}

show_log() {
    echo "  switch: pmtud in the system log, for its first frame"
    lab_syslog | sed -n '1,/ sent to source /p' | sed -e 's/^/      /'
    story_check "it logs whom it answered" lab_syslog_has 'ICMP message sent to source 10.0.10.2'
}

show_change() {
    story_step "a change" "VLAN 20 goes down to 1300 bytes while pmtud runs"
    echo "  b\$ ip link set eth0 mtu 1300"
    echo "  switch\$ ip link set bcm0.20 mtu 1300"
    lab_set_mtu b 20 1300
    story_check "pmtud's rules follow" lab_within 5 lab_serves 20 1300
    local family
    for family in 4 6; do
        show_ping "$family" 1400 10
        story_expect "the next packet's sender learns the new MTU" '(mtu = 1300\)|mtu=1300)'
        show_ping "$family" 1300 10
        story_expect "and a packet of that size passes" ' 0% packet loss'
    done
}

show_way_out() {
    story_step "the way out" "pmtud is killed with SIGKILL, so that it cannot clean up"
    story_run switch nft list tables
    story_expect "its table is there" '^table inet pmtud$'
    echo "  switch\$ kill -KILL $lab_daemon"
    lab_kill_daemon
    story_run switch nft list tables
    story_expect_not "the kernel has removed it" 'pmtud'
    story_expect "and left the lab's own table alone" '^table inet hardware$'
    if [[ -n $capture ]]; then
        lab_stop_capture
        echo
        echo "What host a saw is in $capture."
    fi
}
