# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Host A of the soak: controls the program that sends packets and judges the answers.

# shellcheck disable=SC2034  # read by scripts that source this
declare -A soak_figures=()

# soak_start_host PROGRAM SEED
soak_start_host() {
    mkfifo "$LAB_FILES/to-host" "$LAB_FILES/from-host"
    # The daemon never waits for its log, so the log's reader gets more room than usual.
    lab_on a sysctl -qw net.unix.max_dgram_qlen=4096
    ip netns exec a "$1" "$2" eth0 switch \
        <"$LAB_FILES/to-host" >"$LAB_FILES/from-host" 2>"$LAB_FILES/host" &
    soak_host=$!
    disown
    exec {soak_to}>"$LAB_FILES/to-host" {soak_from}<"$LAB_FILES/from-host"
    soak_hear
}

# soak_tell COMMAND [ARGUMENT...]
# Does not wait for the reply; soak_hear does.
soak_tell() {
    echo "$*" >&"$soak_to"
}

soak_hear() {
    if ! read -r -t 300 soak_reply <&"$soak_from"; then
        lab_complain "host A (process $soak_host) does not answer: $(tail -n 5 "$LAB_FILES/host")"
        return 1
    fi
}

soak_ask() {
    soak_tell "$@"
    soak_hear
}

soak_read_figures() {
    soak_ask figures
    local figure
    for figure in $soak_reply; do
        # shellcheck disable=SC2034
        soak_figures[${figure%%=*}]=${figure#*=}
    done
}

# soak_in_parts COMMAND COUNT [ARGUMENT...]
# Reports its progress every two seconds or so.
soak_in_parts() {
    local -r command=$1 count=$2
    shift 2
    local -ri part=$((count < 20000 ? count : 20000))
    local -i done=0 now
    local -i said
    said=$(lab_now)
    while ((done < count)); do
        now=$((count - done < part ? count - done : part))
        soak_ask "$command" "$now" "$@"
        ((done += now))
        if (($(lab_now) - said > 2000000)); then
            echo "      $done of $count packets"
            said=$(lab_now)
        fi
    done
}

# Removes the kernel's rate limits for answers, and makes all neighbours permanent: the addresses
# from which A's packets claim to come are A's.
soak_prepare_network() {
    lab_on switch sysctl -qw net.ipv4.icmp_ratelimit=0 net.ipv6.icmp.ratelimit=0
    local mac host
    mac=$(lab_on a cat /sys/class/net/eth0/address)
    for host in 2 {50..59}; do
        ip -n switch neigh replace "10.0.10.$host" lladdr "$mac" dev bcm0.10 nud permanent
        ip -n switch neigh replace "2001:db8:10::$host" lladdr "$mac" dev bcm0.10 nud permanent
    done
    mac=$(lab_on b cat /sys/class/net/eth0/address)
    ip -n switch neigh replace 10.0.20.2 lladdr "$mac" dev bcm0.20 nud permanent
    ip -n switch neigh replace 2001:db8:20::2 lladdr "$mac" dev bcm0.20 nud permanent
}
