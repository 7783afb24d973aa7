# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# Which packets are answered, and what the clients make of it.

LargePacketIsAnsweredWithTheVlanMtu() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    expect_match "host a's route" ' mtu 1400( |$)' "$(lab_on a ip route get "$(destination)")"
}

TcpTransferFinishesWithTheSameBytes() {
    lab_build
    lab_start_serving "$daemon"
    start_capture
    lab_start_transfer "$family" 1048576
    expect "the transfer finishes" lab_within 20 lab_transfer_is_over
    expect_equal "what host b received" "$(sha256sum <"$lab_sent")" "$(sha256sum <"$lab_received")"
    await_errors
}

StalledTcpTransferGoesOnOnceTheDaemonRuns() {
    lab_build
    lab_start_transfer "$family" 100000
    expect "the connection is made" lab_within 5 lab_transfer_is_connected
    if lab_within 1 lab_transfer_is_over; then fail "the transfer did not stall"; fi
    lab_start_serving "$daemon"
    expect "the transfer finishes" lab_within 20 lab_transfer_is_over
    expect_equal "what host b received" "$(sha256sum <"$lab_sent")" "$(sha256sum <"$lab_received")"
}

TracepathNamesTheMtuAtTheSwitch() {
    lab_build
    lab_start_serving "$daemon"
    local said
    said=$(lab_on a tracepath "-$family" -n "$(destination)")
    expect_match "tracepath" "$(by_family '10\.0\.10\.1' 2001:db8:10::1) .* pmtu 1400" "$said"
    expect_match "tracepath" "$(destination) .* reached" "$said"
    expect_match "tracepath" '^ +Resume: pmtu 1400 hops 2 back 2' "$said"
}

PacketOfExactlyTheMtuPassesUnanswered() {
    lab_build
    lab_start_serving "$daemon"
    start_capture
    expect_passes 1400
    expect_no_errors
}

PacketOneByteLongerIsAnswered() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1401
}

# An address of the smaller VLAN, yet nothing goes out there.
LargePacketToTheSwitchItselfPassesUnanswered() {
    lab_build
    lab_start_serving "$daemon"
    start_capture
    expect_match "ping" ' 1 received, 0% packet loss' "$(lab_on a ping -c 1 -W 10 -n -M "do" \
        -s 1452 "$(by_family 10.0.20.1 2001:db8:20::1)")"
    expect_no_errors
}

NextPacketAfterAChangeIsAnsweredWithTheNewMtu() {
    lab_build
    lab_start_serving "$daemon"
    expect_answered_with 1400 1500
    lab_set_mtu b 20 1300
    expect "the rules follow" lab_within 5 lab_serves 20 1300
    expect_answered_with 1300 1400
    expect_passes 1300
}

PacketThatMayBeFragmentedArrivesUnanswered() { # IPv4 only
    lab_build
    lab_start_serving "$daemon"
    start_capture
    expect_match "ping" ' 1 received, 0% packet loss' "$(lab_on a ping -c 1 -W 10 -n -M dont \
        -s 1472 10.0.20.2)"
    expect_no_errors
}

has_errors_of() {
    (($(errors | wc -l) >= $1))
}

# The daemon's answers and the kernel's differ in their lengths; beyond the rules' limits, the
# kernel's pass.
EveryOneOfABurstBeyondTheLimitsIsAnswered() {
    lab_build_links 1500 1400
    lab_start_serving "$daemon"
    start_capture
    head -c $((1452 * 600)) /dev/zero >"$LAB_FILES/burst"
    # With DF, whatever path MTU is known: IP_MTU_DISCOVER and IPV6_MTU_DISCOVER to "probe".
    lab_on a socat -u -b 1452 "OPEN:$LAB_FILES/burst" \
        "$(by_family "UDP4-SENDTO:10.0.20.2:9,setsockopt-int=0:10:3" \
            "UDP6-SENDTO:[2001:db8:20::2]:9,setsockopt-int=41:23:3")"
    expect "600 answers come" lab_within 10 has_errors_of 600
    await_marker
    expect_equal "answers" 600 "$(errors | wc -l)"
    expect_match "the daemon's" "length $(by_family 68 1400)\$" "$(errors)"
    expect_match "the kernel's" "length $(by_family 556 1240)\$" "$(errors)"
}
