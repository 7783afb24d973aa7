# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family is run_case's
# The target's daemon on the switch: frames from its scripted platform, replies by real sockets.

readonly daemon=$1 emulator=("${@:2}")

# packet FILTER
# The captured packet's bytes from its IP header, in hexadecimal.
packet() {
    lab_captured -x "$@" | sed -n 's/^\t0x[0-9a-f]*:  //p' | tr -d ' \n'
}

has_request() {
    [[ -n $(lab_captured 'icmp[icmptype] == icmp-echo or icmp6[icmp6type] == icmp6-echo') ]]
}

# A script with the packet that vanished in the black hole, as a switch's queue would deliver it.
script_of_frame() {
    local ether_type sent
    ether_type=$(by_family 0800 86dd)
    sent=$(packet 'icmp[icmptype] == icmp-echo or icmp6[icmp6type] == icmp6-echo')
    cat <<END
arpd real
vlan 7 20
mtu 20 1400
record port=4 vid=10 proto=$((16#$ether_type)) vtag=10 egress=7
frame 020000000001 02000000000a 8100000a $ether_type $sent
end
END
}

answer_by_target() {
    lab_build
    start_capture
    # ping must still be waiting when the reply arrives: IPv4 learns nothing from an error about a closed
    # socket.
    ping_size 1500 -W 30 >"$LAB_FILES/ping" &
    expect "host a's request is captured" lab_within 5 has_request
    script_of_frame >"$LAB_FILES/script"
    lab_start_daemon "$daemon" env PMTUD_SCRIPT="$LAB_FILES/script" "${emulator[@]}"
    await_errors
}

HostLearnsTheMtuFromTheTargetsReply() {
    answer_by_target
    expect_learned_from_daemon
}

# decoded DISPLAY-FILTER [OPTION...]
decoded() {
    local -r filter=$1
    shift
    tshark -r "$capture_of_case" -o ip.check_checksum:TRUE -Y "$filter" "$@" 2>"$LAB_FILES/tshark"
}

ReplyOfTheTargetIsDecodedWithoutErrors() {
    answer_by_target
    lab_stop_capture
    local -r reply='icmp.type == 3 || icmpv6.type == 2' protocol=$(by_family icmp icmpv6)
    # 1 is tshark's "good". The first value of each field is the reply's, the others are the quote's.
    expect_equal "type, code, MTU and checksum" "$(by_family '3,4,1400,1' '2,0,1400,1')" \
        "$(decoded "$reply" -T fields -E separator=, -E occurrence=f -e "$protocol.type" \
            -e "$protocol.code" -e "$protocol.mtu" -e "$protocol.checksum.status")"
    expect_equal "malformed packets" "" "$(decoded "_ws.malformed || ip.checksum.bad")"
}
