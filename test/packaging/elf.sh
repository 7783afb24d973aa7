# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # scratch is run_case's
# How compiler and linker hardened a program or library against memory errors, as its ELF file shows.

# The prefix is that of the binary utilities for its machine.
readonly file=$1 tools=${2:-}

# part OPTION NAME
# What follows NAME or (NAME) in the lines of readelf's output with OPTION that begin with it.
part() {
    "${tools}readelf" --wide "$1" "$file" >"$scratch/part"
    sed -nE "s/^ *(0x[0-9a-f]+ +)?\(?$2\)?:? +//p" "$scratch/part"
}

# expect_word WHAT WORD LINE
expect_word() {
    [[ " $3 " == *" $2 "* ]] || fail "$1: expected $2, but it is '$3'"
}

# The symbols that it takes from other libraries.
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
    expect_equal "segments that can be written and executed" "" \
        "$("${tools}readelf" --wide --segments "$file" | grep -E '^ +LOAD .* RWE ')"
}

StackOverrunsAreDetected() {
    expect_line "what guards the stack" __stack_chk_fail "$(undefined)"
}

BufferOverrunsAreDetected() {
    expect_match "checked calls" '^__v?snprintf_chk$' "$(undefined)"
    # Each of these has a checked form, which must be called instead. Compilers may call snprintf
    # itself if they know that the result fits.
    expect_equal "unchecked calls" "" "$(undefined | grep -xE 'v?s?printf|v?fprintf')"
}

# On x86-64, every function that may be called through a pointer must begin with endbr64.
IndirectCallsLeadToFunctionsOnly() {
    "${tools}nm" --dynamic --defined-only "$file" | sed -nE 's/^.* T ([^@]+).*/\1/p' \
        >"$scratch/functions"
    [[ -s $scratch/functions ]] || echo main >"$scratch/functions"
    local function
    while read -r function; do
        "${tools}objdump" --disassemble="$function" --no-show-raw-insn "$file" >"$scratch/code"
        expect_match "the first instruction of $function" '^ +[0-9a-f]+:\s+endbr64' \
            "$(grep -A 1 "<$function>:$" "$scratch/code" | tail -n 1)"
    done <"$scratch/functions"
}
