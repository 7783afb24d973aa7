# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# What the daemon says, to the letter, where something is not as it should be: the lines for which
# the man page has a remedy.

said() {
    sed -E -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9] //' -e 's/\r$//' "$lab_daemon_output"
}

has_said() {
    grep -Fq -- "$1" "$lab_daemon_output"
}

# What is in the system log behind all that was said so far, which a marker shows to be in.
expect_system_log() {
    printf '<31>Jan  1 00:00:00 pmtud[1]: marker' | socat -u STDIN UNIX-SENDTO:/dev/log
    expect "the marker is logged" lab_within 5 lab_syslog_has marker
    expect_equal "system log" "${1:+$1$'\n'}marker" "$(lab_syslog)"
}

RunThatCannotBeWrittenIsNoMatter() {
    lab_build
    lab_start_serving "$daemon" unshare --mount sh -c 'mount -o remount,bind,ro /run; exec "$@"' sh
    expect_answered_with 1400 1500
    expect_equal "standard error" "" "$(said)"
    [[ ! -e /run/pmtud.pid && ! -e /run/pmtud.registered ]] || fail "it wrote into /run"
}

EgressThatIsDownIsTheKernelsToAnswer() {
    lab_build
    lab_start_serving "$daemon"
    ip -n switch link set bcm0.20 down
    expect_line "ping of 1500 bytes" "$(by_family \
        'From 10.0.10.1 icmp_seq=1 Destination Net Unreachable' \
        'From 2001:db8:10::1 icmp_seq=1 Destination unreachable: No route')" "$(ping_size 1500)"
    expect_equal "standard error" "" "$(said)"
    expect_system_log ""
}

EgressThatComesUpIsServed() {
    lab_build
    ip -n switch link set bcm0.20 down
    lab_start_serving "$daemon"
    ip -n switch link set bcm0.20 up
    lab_await 5 "the link" lab_has_carrier switch bcm0.20
    # Its IPv6 address went with the link.
    ip -n switch address replace 2001:db8:20::1/64 dev bcm0.20 nodad
    expect_answered_with 1400 1500
}
