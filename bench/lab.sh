#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the daemon in the lab, beside the kernel's own answers on the same topology.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 3 || ! ${2:-} =~ ^(answers|memory)$ ]]; then
    echo "usage: ${0##*/} BUILD_DIRECTORY answers SECONDS"
    echo "       ${0##*/} BUILD_DIRECTORY memory FRAMES"
    echo "answers floods the lab for so long with each family, memory until so many frames are"
    echo "answered. Prints a line for each figure: its name and its value. Called by script/bench."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lab/lib.sh
source "$here/../lab/lib.sh"
bin=$(cd "$1" && pwd)/bin
lab_isolate "$0" "$@"

# figure NAME VALUE
figure() {
    printf '%s %s\n' "$1" "$2"
}

# flood FAMILY WORD...: what host A's program prints
flood() {
    lab_on a "$bin/pmtud_flood" "$1" "$(lab_on switch cat /sys/class/net/bcm0.10/address)" "${@:2}"
}

answer_rate() {
    jq '.answered / .seconds | round' <<<"$1"
}

# latency FAMILY: of five runs the one with the least median.  On two cores it depends on where the
# scheduler happens to put the threads, for a whole run, and the least is what the code takes.
latency() {
    local i
    for ((i = 0; i < 5; ++i)); do flood "$1" latency 2000; done |
        jq -s 'if all(.sent == .answered) then min_by(.median_ns)
               else error("answers are missing") end'
}

# measure_answers WHO: latency, and answers a second under flood, for both families
measure_answers() {
    local family result
    for family in 4 6; do
        result=$(latency "$family")
        figure "lab_v${family}_median_ns_$1" "$(jq .median_ns <<<"$result")"
        figure "lab_v${family}_p99_ns_$1" "$(jq .p99_ns <<<"$result")"
        result=$(flood "$family" flood "$seconds")
        figure "lab_v${family}_answers_per_second_$1" "$(answer_rate "$result")"
        figure "lab_v${family}_share_answered_$1" "$(jq '.answered / .sent' <<<"$result")"
    done
}

# Half of what the daemon can do is to be answered whole.
measure_half_rate() {
    local family result rate
    for family in 4 6; do
        result=$(flood "$family" flood 1)
        rate=$(($(answer_rate "$result") / 2))
        result=$(flood "$family" flood "$seconds" "$rate")
        figure "lab_v${family}_half_rate" "$rate"
        figure "lab_v${family}_lost_at_half_rate" "$(jq '.sent - .answered' <<<"$result")"
    done
}

start_daemon_timed() {
    local result
    result=$(flood 4 await 1400 10 ip netns exec switch "$bin/pmtud")
    lab_daemon=$(pgrep -x pmtud)
    figure "$1" "$(jq '.seconds * 1000' <<<"$result")"
}

# change_mtu NAME: from the change's command to the first answer that names the new MTU
change_mtu() {
    local result
    lab_on b ip link set eth0 mtu 1300
    result=$(flood 4 await 1300 10 ip -n switch link set bcm0.20 mtu 1300)
    figure "$1" "$(jq '.seconds * 1000' <<<"$result")"
    lab_on b ip link set eth0 mtu 1400
    flood 4 await 1400 10 ip -n switch link set bcm0.20 mtu 1400 >"$LAB_FILES/back"
}

# The other 4,092, as pairs: each is the other's far end.
add_vlans() {
    local -a vlans
    mapfile -t vlans < <(seq 4094 | grep -vx -e 10 -e 20)
    printf 'link add name bcm0.%s mtu 1500 type veth peer name bcm0.%s mtu 1500\n' \
        "${vlans[@]}" | ip -n switch -batch -
}

measure_many_vlans() {
    local result
    add_vlans
    start_daemon_timed many_vlans_start_ms
    change_mtu many_vlans_mtu_change_ms
    result=$(latency 4)
    figure many_vlans_v4_median_ns "$(jq .median_ns <<<"$result")"
    result=$(flood 4 flood "$seconds")
    figure many_vlans_v4_answers_per_second "$(answer_rate "$result")"
    figure many_vlans_rss_anon_kib "$(lab_daemon_memory)"
}

# measure_memory FRAMES
measure_memory() {
    local family answered=0
    start_daemon_timed memory_start_ms
    figure rss_anon_before_frames_kib "$(lab_daemon_memory)"
    while ((answered < $1)); do
        for family in 4 6; do
            ((answered += $(flood "$family" flood 5 | jq .answered)))
        done
    done
    figure frames_answered "$answered"
    figure rss_anon_after_frames_kib "$(lab_daemon_memory)"
}

# measure_all SECONDS: of each flood
measure_all() {
    local -r seconds=$1
    lab_remove_hardware
    measure_answers kernel
    # From here on only the daemon answers.
    lab_program_hardware
    start_daemon_timed start_ms
    figure rss_anon_idle_kib "$(lab_daemon_memory)"
    measure_answers pmtud
    measure_half_rate
    figure rss_anon_after_floods_kib "$(lab_daemon_memory)"
    change_mtu mtu_change_ms
    lab_kill_daemon
    measure_many_vlans
}

lab_build
lab_start_syslog
case $2 in
    answers) measure_all "$3" ;;
    memory) measure_memory "$3" ;;
esac
