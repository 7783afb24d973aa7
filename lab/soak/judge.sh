# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_daemon is lab/daemon.sh's, soak_figures is host.sh's
# The soak's checks: each one prints a sentence, "ok" or "NOT ok".

soak_bad=0

# soak_check WHAT COMMAND [ARGUMENT...]
soak_check() {
    if "${@:2}"; then
        echo "  ok: $1"
    else
        echo "  NOT ok: $1"
        ((soak_bad += 1))
    fi
}

# soak_check_equal WHAT EXPECTED ACTUAL
soak_check_equal() {
    soak_check "$1 ($3)" test "$2" = "$3"
    if [[ $2 != "$3" ]]; then echo "          expected $2"; fi
}

soak_no_faults() {
    soak_read_figures
    soak_check_equal "$1" 0 "$((soak_figures[faults] - soak_faults_before))"
    if ((soak_figures[faults] > soak_faults_before)); then
        grep '^FAULT' "$LAB_FILES/host" | sed -e 's/^/          /'
    fi
    soak_faults_before=${soak_figures[faults]}
    soak_nothing_missing
}
soak_faults_before=0

# The kernel's answers in all namespaces share one socket's buffer, which a busy machine can
# exhaust. The kernel counts the answers that it could not send.
soak_no_room() {
    lab_on switch nstat -asz IcmpOutErrors Icmp6OutErrors | awk '/OutErrors/ {n += $2} END {print n}'
}

soak_nothing_missing() {
    local -ri no_room=$(soak_no_room)
    local -ri now=$((no_room - soak_no_room_before))
    local -ri missing=$((soak_figures[missing] - soak_missing_before))
    soak_check "missing answers ($missing): at most as many as the kernel had no room to send ($now)" \
        test "$missing" -le "$now"
    if ((missing > now)); then
        grep '^MISSING' "$LAB_FILES/host" | sed -e 's/^/          /'
    fi
    soak_no_room_before=$no_room
    soak_missing_before=${soak_figures[missing]}
}
soak_no_room_before=0
soak_missing_before=0
