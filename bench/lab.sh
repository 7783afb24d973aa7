#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Measures the daemon in the lab, compared with the kernel's own answers on the same topology.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 3 || ! ${2:-} =~ ^(answers|floods|memory)$ ]]; then
    echo "usage: ${0##*/} BUILD_DIRECTORY answers|floods SECONDS"
    echo "       ${0##*/} BUILD_DIRECTORY memory FRAMES"
    echo "answers and floods flood the lab for that long with each family; memory continues until"
    echo "that many frames are answered. Prints one line per figure: its name and its value."
    echo "Called by script/bench."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

here=$(CDPATH='' cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lab/lib.sh
source "$here/../lab/lib.sh"
# shellcheck source=bench/hosts.sh
source "$here/hosts.sh"
# shellcheck source=bench/floods.sh
source "$here/floods.sh"
bin=$(cd "$1" && pwd)/bin
lab_isolate "$0" "$@"

# Packets per second: fewer than the rules hand to the daemon for each interface.
readonly within_limits=100

# latency FAMILY: of five runs, the one with the lowest median. On two cores, the median depends, for a
# whole run, on where the scheduler happens to put the threads; the lowest is what the code needs.
latency() {
    local i
    for ((i = 0; i < 5; ++i)); do host_send a 10 "$1" one 200 10 HOST; done |
        jq -s 'if all(.sent == .answered) then min_by(.median_ns)
               else error("answers are missing") end'
}

# measure_latency WHO
measure_latency() {
    local family result
    for family in 4 6; do
        result=$(latency "$family")
        figure "lab_v${family}_median_ns_$1" .median_ns "$result"
        figure "lab_v${family}_p99_ns_$1" .p99_ns "$result"
    done
}

start_daemon_timed() {
    local result
    result=$(host_send a 10 4 await 1400 10 HOST ip netns exec switch "$bin/pmtud")
    lab_daemon=$(pgrep -x pmtud)
    figure "$1" '.seconds * 1000' "$result"
}

# change_mtu NAME: times a change, from its command to the first answer that names the new MTU
change_mtu() {
    local result
    lab_on b ip link set eth0 mtu 1300
    result=$(host_send a 10 4 await 1300 10 HOST ip -n switch link set bcm0.20 mtu 1300)
    figure "$1" '.seconds * 1000' "$result"
    lab_on b ip link set eth0 mtu 1400
    host_send a 10 4 await 1400 10 HOST ip -n switch link set bcm0.20 mtu 1400 >"$LAB_FILES/back"
}

# The other 4,092 VLANs, as veth pairs whose ends are both VLANs.
add_vlans() {
    local -a vlans
    mapfile -t vlans < <(seq 4094 | grep -vx -e 10 -e 20)
    printf 'link add name bcm0.%s mtu 1500 type veth peer name bcm0.%s mtu 1500\n' \
        "${vlans[@]}" | ip -n switch -batch -
}

measure_many_vlans() {
    add_vlans
    start_daemon_timed many_vlans_start_ms
    change_mtu many_vlans_mtu_change_ms
    figure many_vlans_v4_median_ns .median_ns "$(latency 4)"
    figure many_vlans_rss_anon_kib . "$(lab_daemon_memory)"
}

# The kernel alone; then the daemon alone, since the hardware is mute.
measure_answers() {
    local family result
    lab_build_links 1500 1400
    measure_latency kernel
    lab_program_hardware
    start_daemon_timed start_ms
    figure rss_anon_idle_kib . "$(lab_daemon_memory)"
    measure_latency pmtud
    for family in 4 6; do
        result=$(host_flood a 10 "$family" "$flood_seconds" "$within_limits")
        figure "lab_v${family}_lost_within_limits" '.sent - .by_pmtud' "$result"
    done
    change_mtu mtu_change_ms
    lab_kill_daemon
    measure_many_vlans
}

# measure_memory FRAMES: with twenty VLANs, enough to reach the limit that applies to all together
measure_memory() {
    local family answered=0
    lab_build_links 1500 1400
    hosts_add 41 60
    start_daemon_timed memory_start_ms
    figure rss_anon_before_frames_kib . "$(lab_daemon_memory)"
    while ((answered < $1)); do
        for family in 4 6; do
            ((answered += $(hosts_flood 41 60 "$family" 10 "$within_limits" | jq .by_pmtud)))
        done
    done
    figure frames_answered . "$answered"
    figure rss_anon_after_frames_kib . "$(lab_daemon_memory)"
}

lab_start_syslog
readonly flood_seconds=$3
case $2 in
    answers) measure_answers ;;
    floods) measure_floods ;;
    memory) measure_memory "$3" ;;
esac
