# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family is run_case's
# Checks that forwarding does not take several times as long with the daemon; script/bench measures how
# much longer it takes.

readonly daemon=$1 bulk=$((100 << 20))

# Sends host b 100 MiB; bulk_time is the time that this takes, in microseconds.
transfer_bulk() {
    local -r port=$((6000 + (bulk_transfers += 1)))
    ip netns exec b socat -u -b 1048576 "TCP$family-LISTEN:$port" "CREATE:$LAB_FILES/bulk" &
    local -r receiver=$!
    disown
    expect "host b listens" lab_within 10 lab_listens "$port"
    local -r start=$(lab_now)
    lab_on a timeout 45 socat -u -b 1048576 "OPEN:/dev/zero,readbytes=$bulk" \
        "TCP$family:$(by_family 10.0.20.2 '[2001:db8:20::2]'):$port" || fail "the transfer hangs"
    expect "the transfer ends" lab_within 10 lab_is_gone "$receiver"
    bulk_time=$(($(lab_now) - start))
    expect_equal "bytes received" "$bulk" "$(stat -c %s "$LAB_FILES/bulk")"
}
bulk_transfers=0

# The best of three, because a busy machine delays single transfers.
best_of_three() {
    best=
    for _ in 1 2 3; do
        transfer_bulk
        if [[ -z $best ]] || ((bulk_time < best)); then best=$bulk_time; fi
    done
}

# build_with_offloads INGRESS_MTU EGRESS_MTU
# With offloads, a sender's packets are up to 64 KiB long; the kernel segments them when they leave.
build_with_offloads() {
    # shellcheck disable=SC2034  # lab/network.sh reads it
    lab_like_wire=false
    lab_build_links "$@"
}

expect_bulk_as_fast_with_the_daemon() {
    best_of_three
    local -r alone=$best
    lab_start_serving "$daemon"
    best_of_three
    expect "at most four times as long: $best µs, and $alone µs without it" \
        test "$best" -lt $((4 * alone))
}

BulkTransferFromJumboFramesTakesLessThanFourTimesAsLong() {
    build_with_offloads 9000 1500
    expect_bulk_as_fast_with_the_daemon
}

BulkTransferIntoASmallerVlanTakesLessThanFourTimesAsLong() {
    build_with_offloads 1500 1400
    expect_bulk_as_fast_with_the_daemon
}
