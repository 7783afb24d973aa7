# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_daemon is lab/daemon.sh's, soak_figures is host.sh's
# What the soak checks: each check is a stated sentence, "ok" or "NOT ok".

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
    if [[ $2 != "$3" ]]; then echo "          it should be $2"; fi
}

# soak_check_no_more WHAT BEFORE NOW
soak_check_no_more() {
    soak_check "$1 ($2 before, $3 now)" test "$3" -le "$2"
}

soak_no_faults() {
    soak_read_figures
    soak_check_equal "$1" 0 "$((soak_figures[faults] - soak_faults_before))"
    if ((soak_figures[faults] > soak_faults_before)); then
        grep '^FAULT' "$LAB_FILES/host" | sed -e 's/^/          /'
    fi
    soak_faults_before=${soak_figures[faults]}
}
soak_faults_before=0

soak_descriptors() {
    find "/proc/$lab_daemon/fd" -mindepth 1 | wc -l
}

# How many packets for bcm0.20 the rules have copied since the daemon started.
soak_copied() {
    lab_on switch nft list counter inet pmtud bcm0.20 |
        sed -nE 's/^\s*packets ([0-9]+) .*/\1/p'
}
