# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Narrates a demonstration step by step: what is done, what is seen, and whether it was expected.

story_begin() {
    story_steps=$1
    story_number=0
    story_title=
    story_start=$(lab_now)
    story_output=
    story_verdict=
    trap story_leave EXIT
}

# Names the step even if the command that fails is not covered by a check.
story_leave() {
    if [[ -z $story_verdict ]]; then story_complain "could not continue"; fi
}

story_complain() {
    lab_complain "step $story_number of $story_steps, $story_title: $1"
}

story_step() {
    ((story_number += 1))
    story_title=$1
    echo
    echo "[$story_number/$story_steps] ${story_title^}: $2"
}

# story_run MACHINE COMMAND [ARGUMENT...]
# Shows the command and its output, and keeps the output for story_expect. The exit status is not
# checked: a ping without an answer fails, and may be just what a step shows.
story_run() {
    local -r machine=$1
    shift
    echo
    echo "  $machine\$ $*"
    local status=0
    story_output=$(lab_on "$machine" "$@" 2>&1) || status=$?
    if ((status != 0)); then story_output+=$'\n'"(exit status $status)"; fi
    sed -e '/^$/d' -e 's/^/      /' <<<"$story_output"
}

# story_expect WHAT PATTERN
story_expect() {
    story_check "$1" grep -Eq -- "$2" <<<"$story_output"
}

story_expect_not() {
    if grep -Eq -- "$2" <<<"$story_output"; then story_fail "$1"; fi
    story_good "$1"
}

# story_check WHAT COMMAND [ARGUMENT...]
story_check() {
    if ! "${@:2}"; then story_fail "$1"; fi
    story_good "$1"
}

story_good() {
    echo "  ok: $1"
}

story_fail() {
    echo "  NOT ok: $1"
    story_verdict=bad
    story_complain "did not show: $1"
    exit 1
}

story_end() {
    local -r milliseconds=$((($(lab_now) - story_start) / 1000))
    story_verdict=good
    echo
    echo "All $story_steps steps showed what they should, in $((milliseconds / 1000)) s."
}
