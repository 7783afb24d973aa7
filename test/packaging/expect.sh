# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Checks for the packaging's cases, and a folder that exists only while a case runs.

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
# Calls the function CASE, with the folder `scratch`.
run_case() {
    [[ $(type -t "$1") == function ]] || fail "no case $1"
    scratch=$(mktemp -d)
    trap 'rm -rf --one-file-system "$scratch"' EXIT
    "$1"
}
