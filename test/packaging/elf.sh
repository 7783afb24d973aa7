#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# How compiler and linker hardened a program against memory errors, as its ELF file shows.
set -euo pipefail

if [[ ${1:-} == --help || $# -lt 2 || $# -gt 3 ]]; then
    echo "usage: ${0##*/} CASE FILE [PREFIX]"
    echo "Ends with status 0 if everything that CASE expects of the program or library FILE is true;"
    echo "PREFIX: that of the binary utilities for its machine."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

# shellcheck source=test/packaging/expect.sh
source "$(dirname "${BASH_SOURCE[0]}")/expect.sh"
readonly file=$2 tools=${3:-}

# part OPTION NAME
# Of readelf's output with OPTION, the rest of the lines that begin with NAME or (NAME).
part() {
    "${tools}readelf" --wide "$1" "$file" >"$scratch/part"
    sed -nE "s/^ *(0x[0-9a-f]+ +)?\(?$2\)?:? +//p" "$scratch/part"
}

# expect_match WHAT PATTERN LINE
expect_match() {
    grep -qE "$2" <<<"$3" || fail "$1: expected $2, but it is '$3'"
}

# expect_word WHAT WORD LINE
expect_word() {
    [[ " $3 " == *" $2 "* ]] || fail "$1: expected $2, but it is '$3'"
}

undefined() {
    "${tools}nm" --dynamic --undefined-only "$file" | sed -E 's/^.* ([^ @]+)(@.*)?$/\1/'
}

AddressesAreResolvedBeforeItStarts() {
    expect_word "flags" BIND_NOW "$(part --dynamic FLAGS)"
    expect_word "flags" NOW "$(part --dynamic FLAGS_1)"
}

ResolvedAddressesCannotBeWritten() {
    expect_word "its tables" R "$(part --segments GNU_RELRO)"
    # Lazily resolved addresses would not be protected.
    expect_equal "text relocations" "" "$(part --dynamic TEXTREL)"
}

ItCanBeLoadedAnywhere() {
    local -r type=$(part --file-header Type)
    [[ $type == "DYN (Shared object file)" ]] ||
        expect_word "flags of a program" PIE "$(part --dynamic FLAGS_1)"
    expect_word "its type" DYN "$type"
}

StackCannotBeExecuted() {
    expect_match "the stack's segment" ' RW +0x[0-9a-f]+$' "$(part --segments GNU_STACK)"
    "${tools}readelf" --wide --segments "$file" >"$scratch/segments"
    if grep -E '^ +LOAD .* RWE ' "$scratch/segments"; then
        fail "a segment can be written and executed"
    fi
}

OverrunsOfTheStackAreNoticed() {
    undefined >"$scratch/undefined"
    grep -qx '__stack_chk_fail' "$scratch/undefined" || fail "no function guards its stack"
}

OverrunsOfBuffersAreNoticed() {
    undefined >"$scratch/undefined"
    grep -qxE '__v?snprintf_chk' "$scratch/undefined" || fail "no call is checked"
    # Each of these has a checked form, which must be called instead.
    if grep -xE 'v?s?n?printf|v?fprintf' "$scratch/undefined"; then
        fail "calls are not checked"
    fi
}

# On x86-64, every function that may be called through a pointer must begin with endbr64.
IndirectCallsLeadToFunctionsOnly() {
    if "${tools}nm" --dynamic --defined-only "$file" | grep -q ' T '; then
        "${tools}nm" --dynamic --defined-only "$file" | sed -nE 's/^.* T ([^@]+).*/\1/p'
    else
        echo main
    fi >"$scratch/functions"
    local function
    while read -r function; do
        "${tools}objdump" --disassemble="$function" --no-show-raw-insn "$file" >"$scratch/code"
        expect_match "the first instruction of $function" '^ +[0-9a-f]+:\s+endbr64' \
            "$(grep -A 1 "<$function>:$" "$scratch/code" | tail -n 1)"
    done <"$scratch/functions"
}

run_case "$1"
