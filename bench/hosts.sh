# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # bin and lab_daemon are those of the script that sources this
# More hosts for the lab's measurements, what they send, and what that costs the daemon.

# figure NAME FILTER OBJECT
figure() {
    printf '%s %s\n' "$1" "$(jq "$2" <<<"$3")"
}

# host_send MACHINE VLAN FAMILY WORD...: runs the host's program; the word HOST becomes the host
host_send() {
    local mac
    local -ar words=("${@:4}")
    mac=$(lab_on switch cat "/sys/class/net/bcm0.$2/address")
    lab_on "$1" "$bin/pmtud_load" "$mac" "$3" "${words[@]/#HOST/eth0:$2}"
}

# host_flood MACHINE VLAN FAMILY SECONDS [PACKETS_PER_SECOND]
host_flood() {
    if (($# > 4)); then
        host_send "$1" "$2" "$3" rate "$5" "$4" 0 HOST
    else
        host_send "$1" "$2" "$3" flood "$4" 0 0 HOST
    fi
}

# hosts_add FIRST LAST: a host in each of those VLANs
hosts_add() {
    local vlan
    for ((vlan = $1; vlan <= $2; ++vlan)); do
        lab_machine "h$vlan"
        lab_connect "h$vlan" "$vlan" 1500
    done
}

# hosts_flood FIRST LAST FAMILY SECONDS [PACKETS_PER_SECOND]: prints one object, the hosts' sums
hosts_flood() {
    local vlan
    local -a pids=()
    for ((vlan = $1; vlan <= $2; ++vlan)); do
        host_flood "h$vlan" "$vlan" "${@:3}" >"$LAB_FILES/flood.$vlan" &
        pids+=($!)
    done
    for vlan in "${pids[@]}"; do wait "$vlan"; done
    for ((vlan = $1; vlan <= $2; ++vlan)); do cat "$LAB_FILES/flood.$vlan"; done |
        jq -cs '{sent: map(.sent) | add, answered: map(.answered) | add,
            by_pmtud: map(.by_pmtud) | add, seconds: map(.seconds) | max}'
}

# In hundredths of a second.
processor_time() {
    awk '{print $14 + $15}' "/proc/$lab_daemon/stat"
}

# The lines written to the log, and those that it did not accept.
log_lines() {
    lab_syslog | awk '/PMTUD-Linux: [0-9]+ lines lost/ {lost += $3} END {print NR + lost}'
}

# with_cost COMMAND...: prints the command's object, with the daemon's share of a processor and its
# log lines added
with_cost() {
    local result
    local -ri time=$(processor_time) lines=$(log_lines)
    result=$("$@")
    jq -c --argjson time $(($(processor_time) - time)) --argjson lines $(($(log_lines) - lines)) \
        '.processor = $time / 100 / .seconds | .lines = ($lines / .seconds | round)' <<<"$result"
}
