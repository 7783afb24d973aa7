#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks that a built daemon takes from the platform exactly the seam's functions and objects.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 ]]; then
    echo "usage: ${0##*/} NM PROGRAM"
    echo "Succeeds if the platform symbols that PROGRAM leaves undefined are exactly the seam's."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

readonly project=${BASH_SOURCE[0]%/*}/../../..
expected=$("$project/test/support/platform_symbols" | sort)

# The C and C++ libraries' symbols carry their version; weak ones (w) are the start-up code's.
symbols=$("$1" --dynamic --undefined-only "$2")
found=$(awk '$1 == "U" && $2 !~ /@(GLIBC|GLIBCXX|CXXABI|GCC)_/ { sub(/@.*/, "", $2); print $2 }' \
    <<<"$symbols" | sort)

if ! diff <(echo "$expected") <(echo "$found"); then
    echo "$2: '<' only in the seam, '>' only among the daemon's undefined symbols" >&2
    exit 1
fi
