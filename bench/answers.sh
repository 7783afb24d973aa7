#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the daemon's answers, compared with a minimal program's and with the kernel's.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 || ! ${2:-} =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: ${0##*/} BUILD_DIRECTORY RUNS"
    echo "Prints a JSON object for each figure of each run; bench/answers.jq summarises them."
    echo "The programs compared take turns. Called by script/bench."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

here=$(CDPATH='' cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lab/lib.sh
source "$here/../lab/lib.sh"
bin=$(cd "$1" && pwd)/bin
lab_isolate "$0" "$@"

# An answer leaves on its packet's VLAN. The daemon sends up to 125 per second on each and 1,500 in
# total; 24 VLANs are enough to approach the total.
readonly runs=$2 rate=1440 length=2
readonly -a vlans=({101..125})
mapfile -t hosts < <(printf '%s\n' "${vlans[@]}" | sed 's/.*/v&:&/')
readonly -a crowd=("${hosts[@]:0:24}")
readonly honest=${hosts[24]}

# sample NAME VALUE
sample() {
    jq -cn --arg name "$1" --argjson value "$2" '{name: $name, value: $value}'
}

# The hosts are one machine, with one interface per VLAN, all with the same Ethernet address.
connect_hosts() {
    lab_machine hosts
    local vlan family
    for vlan in "${vlans[@]}"; do
        ip link add name "v$vlan" address 02:00:00:00:01:02 netns hosts type veth \
            peer name "bcm0.$vlan" address 02:00:00:00:01:01 netns switch
        lab_link_end hosts "v$vlan" 1500
        lab_link_end switch "bcm0.$vlan" 1500
        lab_give_address switch "bcm0.$vlan" "$vlan" 1
        lab_give_address hosts "v$vlan" "$vlan" 2
        for family in 4 6; do
            ip -n switch neigh replace "$(lab_address "$family" "$vlan" 2)" \
                lladdr 02:00:00:00:01:02 dev "bcm0.$vlan" nud permanent
        done
    done
}

# load FAMILY COMMAND WORD...
load() {
    lab_on hosts "$bin/pmtud_load" 02:00:00:00:01:01 "$@"
}

# On one CPU: waking another one takes a time that depends on its sleep state, not on the code.
one_by_one() {
    lab_on hosts taskset -c 0 "$bin/pmtud_load" 02:00:00:00:01:01 "$1" one 45 5 "${crowd[0]}"
}

has_table() {
    lab_on switch nft list table inet "$1" >"$LAB_FILES/table" 2>&1
}

# start bare|pmtud [WRAPPER...]
start() {
    lab_start_daemon "$bin/${1/bare/pmtud_bare}" "${@:2}"
    lab_await 5 "the rules of $1" has_table "$1"
}

# measure_times bare|pmtud: with mute hardware, so that the program sends every answer itself. The
# daemon logs the first hundred frames and then 20 per second, so every timed answer is logged.
measure_times() {
    local family result
    start "$1" taskset -c 0
    for family in 4 6; do
        result=$(one_by_one "$family")
        jq -e '.sent == .answered' <<<"$result" >"$LAB_FILES/whole"
        sample "answer_v${family}_median_ns_$1" "$(jq .median_ns <<<"$result")"
    done
    lab_kill_daemon
}

# measure_costs bare|pmtud
measure_costs() {
    local family result
    start "$1"
    for family in 4 6; do
        result=$(load "$family" rate "$rate" "$length" "$lab_daemon" "${crowd[@]}")
        sample "answer_v${family}_cpu_ns_$1" "$(jq '.process_ns / .answered | round' <<<"$result")"
        sample "answer_v${family}_share_at_rate_$1" "$(jq '.answered / .sent' <<<"$result")"
    done
    lab_kill_daemon
}

# Counts lines of any priority.
log_lines() {
    awk '{n += gsub(/<[0-9]+>/, "")} END {print n + 0}' "$LAB_FILES/syslog"
}

# measure_flood kernel|pmtud: from one VLAN, without the hardware
measure_flood() {
    local family result lines pid=0
    [[ $1 == kernel ]] || start pmtud
    [[ $1 == kernel ]] || pid=$lab_daemon
    for family in 4 6; do
        lines=$(log_lines)
        result=$(load "$family" flood "$length" "$pid" 0 "${crowd[0]}")
        sample "flood_v${family}_answers_per_second_$1" "$(jq '.answered / .seconds' <<<"$result")"
        sample "flood_v${family}_path_ns_$1" "$(jq '.sender_ns / .sent | round' <<<"$result")"
        sample "flood_v${family}_share_answered_$1" "$(jq '.answered / .sent' <<<"$result")"
        sample "flood_v${family}_duplicates_$1" "$(jq .duplicates <<<"$result")"
        [[ $1 == pmtud ]] || continue
        sample "flood_v${family}_core_share" "$(jq '.process_ns / 1e9 / .seconds' <<<"$result")"
        lines=$(($(log_lines) - lines))
        sample "flood_v${family}_log_lines_per_second" "$((lines / length))"
    done
    [[ $1 == kernel ]] || lab_kill_daemon
}

# measure_fairness plain|mute FLOODERS: how many of an honest host's packets are answered
measure_fairness() {
    local family result
    start pmtud
    for family in 4 6; do
        result=$(load "$family" flood "$length" "$lab_daemon" "$honest" "${crowd[@]:0:$2}")
        sample "honest_v${family}_$1_$2" "$(jq '.honest_answered / .honest_sent' <<<"$result")"
    done
    lab_kill_daemon
}

# How often the idle daemon's threads wake up.
measure_idle() {
    start pmtud
    local -r main=/proc/$lab_daemon/task/$lab_daemon
    sleep 1  # Starting causes wake-ups.
    local -ri all=$(switches "/proc/$lab_daemon"/task/*) parked=$(switches "$main")
    sleep 10
    local -ri later=$(switches "/proc/$lab_daemon"/task/*) mains=$(($(switches "$main") - parked))
    sample idle_wakeups_per_second_main "${mains}e-1"
    sample idle_wakeups_per_second_receiving "$((later - all - mains))e-1"
    lab_kill_daemon
}

# switches THREAD...
switches() {
    awk '/^voluntary_ctxt_switches/ {n += $2} END {print n}' "${@/%//status}"
}

lab_build
connect_hosts
lab_start_syslog
measure_idle
for ((run = 0; run < runs; ++run)); do
    lab_program_hardware
    for ((again = 0; again < 6; ++again)); do
        measure_times bare
        measure_times pmtud
    done
    measure_costs bare
    measure_costs pmtud
    for flooders in 1 10; do measure_fairness mute "$flooders"; done
    lab_remove_hardware
    for flooders in 1 10; do measure_fairness plain "$flooders"; done
    for ((again = 0; again < 2; ++again)); do
        measure_flood kernel
        measure_flood pmtud
    done
done
