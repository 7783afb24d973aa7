# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family is run_case's
# Checks for the end-to-end cases, and the packets that they send.

show_context() {
    echo "--- what pmtud wrote to standard error:"
    cat "${lab_daemon_output:-/dev/null}"
    echo "--- what pmtud wrote to the system log:"
    lab_syslog
}

# What the daemon wrote to standard error, without each line's time and CR.
said() {
    sed -E -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9] //' -e 's/\r$//' "$lab_daemon_output"
}

has_refused() {
    [[ $(said) == *'Could not initialize SHM' ]]
}

# expect_refused RESULT [LINE_BEFORE]
expect_refused() {
    expect "it reports the failure" lab_within 5 has_refused
    expect_equal "standard error" "${2:+$2$'\n'}ERROR: [SHM_Wrapper:140 | virtual bool \
SHM_Wrapper_App::init()] Could not initialize SHM queue, ret=$1
ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM" "$(said)"
    expect "it keeps running" test -d "/proc/$lab_daemon"
}

# by_family TEXT_OF_IPV4 TEXT_OF_IPV6
by_family() {
    if [[ $family == 4 ]]; then echo "$1"; else echo "$2"; fi
}

destination() {
    by_family 10.0.20.2 2001:db8:20::2
}

# ping_size SIZE [OPTION...]
# Sends host b one echo request whose whole packet has that size and must not be fragmented, and prints
# ping's output. Waits long only if nothing comes back.
ping_size() {
    local -r size=$1
    shift
    local status=0
    lab_on a ping -c 1 -W 10 -n -M "do" -s $((size - $(by_family 28 48))) "$@" "$(destination)" \
        2>&1 || status=$?
    # 1: no echo reply; more: ping itself failed.
    ((status <= 1)) || fail "ping: status $status"
}

# expect_answered_with MTU SIZE
# Works even if host a has already learned the MTU.
expect_answered_with() {
    local -r mtu=$1 size=$2
    ip -n a "-$family" route flush cache
    expect_line "ping of $size bytes" "$(by_family \
        "From 10.0.10.1 icmp_seq=1 Frag needed and DF set (mtu = $mtu)" \
        "From 2001:db8:10::1 icmp_seq=1 Packet too big: mtu=$mtu")" "$(ping_size "$size")"
}

readonly capture_of_case=$LAB_FILES/case.pcap

start_capture() {
    lab_start_capture "$capture_of_case"
}

# The path-MTU errors that host a received.
errors() {
    lab_captured 'icmp[icmptype] == icmp-unreach or icmp6[icmp6type] == icmp6-packettoobig'
}

has_errors() {
    [[ -n $(errors) ]]
}

await_errors() {
    expect "an error reaches host a" lab_within 5 has_errors
}

# Checks that host a received one answer, in the daemon's form, and has learned the MTU from it.
expect_learned_from_daemon() {
    await_errors
    expect_equal "the answer on the wire" "$(by_family \
        'IP 10.0.10.1 > 10.0.10.2: ICMP 10.0.20.2 unreachable - need to frag (mtu 1400), length 68' \
        'IP6 2001:db8:10::1 > 2001:db8:10::2: ICMP6, packet too big, mtu 1400, length 1400')" \
        "$(errors)"
    expect_match "host a's route" ' mtu 1400( |$)' "$(ip -n a route get "$(destination)")"
}
