# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Checks for the cases that run_case runs.

# A script may define show_context, which prints what helps to understand its failures.
fail() {
    echo "FAILED: $1" >&2
    if [[ $(type -t show_context) == function ]]; then show_context >&2; fi
    exit 1
}

# expect WHAT COMMAND [ARGUMENT...]
expect() {
    local -r what=$1
    shift
    if ! "$@"; then fail "$what"; fi
}

# expect_equal WHAT EXPECTED ACTUAL
expect_equal() {
    [[ $3 == "$2" ]] || fail "$1: expected"$'\n'"$2"$'\n'"but it is"$'\n'"$3"
}

# expect_line WHAT LINE TEXT
expect_line() {
    grep -Fxq -- "$2" <<<"$3" || fail "$1: expected the line"$'\n'"$2"$'\n'"in"$'\n'"$3"
}

# expect_match WHAT PATTERN TEXT
# Checks that a line of the text matches.
expect_match() {
    grep -Eq -- "$2" <<<"$3" || fail "$1: expected to find"$'\n'"$2"$'\n'"in"$'\n'"$3"
}
