# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Waits for a condition, up to a deadline.

# In microseconds. The decimal separator depends on the locale.
lab_now() {
    echo "${EPOCHREALTIME//[^0-9]/}"
}

# lab_within SECONDS COMMAND [ARGUMENT...]
# Whether the command succeeds before the deadline.
lab_within() {
    local -r deadline=$(($(lab_now) + $1 * 1000000))
    shift
    until "$@"; do
        (($(lab_now) < deadline)) || return 1
        sleep 0.02
    done
}

# lab_await SECONDS WHAT COMMAND [ARGUMENT...]
# As lab_within; on a timeout, reports what it was waiting for.
lab_await() {
    local -r seconds=$1 what=$2
    shift 2
    if ! lab_within "$seconds" "$@"; then
        lab_complain "timed out after $seconds s waiting for $what"
        return 1
    fi
}

lab_is_gone() {
    [[ ! -d /proc/$1 ]]
}
