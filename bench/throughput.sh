#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures how fast TCP crosses the lab's switch, alternately with and without the daemon.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 || ! ${2:-} =~ ^[1-9][0-9]?$ ]]; then
    echo "usage: ${0##*/} BUILD_DIRECTORY ROUNDS"
    echo "Sends 1,000 MiB by TCP from host a to host b, alternately without and with the daemon, for"
    echo "that many rounds; the kernel answers, and the links have a network card's offloads. Prints"
    echo "one line per figure: its name and its value. Called by script/bench."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

here=$(CDPATH='' cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lab/lib.sh
source "$here/../lab/lib.sh"
daemon=$(cd "$1" && pwd)/bin/pmtud
lab_isolate "$0" "$@"

# transfer FAMILY MIB: prints the received Mbit/s
transfer() {
    lab_on a iperf3 -c "$(lab_address "$1" 20 2)" -n "$2M" -J |
        jq '.end.sum_received.bits_per_second / 1e6 | round'
}

# measure FAMILY: prints Mbit/s, after a shorter transfer that learns the path MTU and absorbs
# start-up effects
measure() {
    # Forgets what an earlier run learned about the path.
    ip -n a "-$1" route flush cache
    transfer "$1" 200 >"$LAB_FILES/first"
    transfer "$1" 1000
}

without_daemon() {
    measure "$1" >>"$LAB_FILES/without"
}

with_daemon() {
    lab_start_serving "$daemon"
    measure "$1" >>"$LAB_FILES/with"
    lab_kill_daemon
}

mean() {
    jq -s 'add / length | round' "$1"
}

# measure_path FAMILY INGRESS_MTU EGRESS_MTU ROUNDS
measure_path() {
    local -r name="throughput_v$1_$2_to_$3"
    local round with without
    : >"$LAB_FILES/with"
    : >"$LAB_FILES/without"
    for ((round = 0; round < $4; ++round)); do
        if ((round % 2 == 0)); then
            without_daemon "$1"
            with_daemon "$1"
        else
            with_daemon "$1"
            without_daemon "$1"
        fi
    done
    without=$(mean "$LAB_FILES/without")
    with=$(mean "$LAB_FILES/with")
    echo "${name}_mbit_kernel $without"
    echo "${name}_mbit_pmtud $with"
    echo "${name}_over_kernel $(jq -n "$with / $without * 1000 | round / 1000")"
}

# shellcheck disable=SC2034  # lab/network.sh reads it
lab_like_wire=false
lab_build_links 9000 1500
lab_start_syslog
lab_on b iperf3 -s -D --logfile "$LAB_FILES/iperf3"
lab_await 10 "host b to listen" lab_listens 5201
for family in 4 6; do measure_path "$family" 9000 1500 "$2"; done
lab_set_mtu a 10 1500
lab_set_mtu b 20 1400
for family in 4 6; do measure_path "$family" 1500 1400 "$2"; done
