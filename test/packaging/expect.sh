# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the cases of the packaging expect, and a folder of their own that goes with them.

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

expect_equal() {
    local -r what=$1 expected=$2 actual=$3
    if [[ $actual != "$expected" ]]; then
        fail "$what: expected"$'\n'"$expected"$'\n'"but it is"$'\n'"$actual"
    fi
}

# run_case CASE
# Calls the function CASE with the folder `scratch` there.
run_case() {
    [[ $(type -t "$1") == function ]] || fail "no case $1"
    scratch=$(mktemp -d)
    trap 'rm -rf --one-file-system "$scratch"' EXIT
    "$1"
}
