# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# The man page: it is well formed, and explains every line that the daemon can write.

readonly page=$project/packaging/pmtud.8

readonly literal='"(?:[^"\\]|\\.)*"'

# statements START FILE...
# The statements that begin with START, each on one line: FILE, a tab, the statement.
statements() {
    local -r start=$1
    shift
    local file
    for file in "$@"; do
        # A file may contain none.
        { tr '\n' ' ' <"$file" | grep -oP "\\b$start(?:[^;\"]|$literal)*;" || (($? == 1)); } |
            sed "s|^|${file##*/}\t|"
    done
}

# pattern STATEMENT
# The pattern of a line that shows the statement's texts in order, with any values between them. Of a text
# with several lines, only the first counts, and ends the pattern.
pattern() {
    grep -oP -- "$literal" <<<"$1" | sed -E -e 's/^" *| *"$//g' -e '/\\n/{s/ *\\n.*//;q}' |
        sed -E -e 's/[][\.*^$+?(){}|/]/\\&/g' -e 's/%[a-z]+/.*/g' -e 's/^/.*/' | tr -d '\n'
}

# expect_explained PATTERN
# Checks that a line of the page, formatted without line breaks, matches.
expect_explained() {
    [[ -s $scratch/page ]] || mandoc -T ascii -O width=400 "$page" | col -bx >"$scratch/page"
    grep -Eq -- "$1" "$scratch/page" || fail "the man page has no line that matches: $1"
    echo >>"$scratch/explained"
}

expect_count() {
    expect_equal "lines looked for" "$1" "$(wc -l <"$scratch/explained")"
}

MandocHasNoComplaints() {
    # It does not matter which other manuals this machine has.
    expect_equal "mandoc's lint" "" "$(mandoc -T lint -W style "$page" 2>"$scratch/database" |
        sed '/: STYLE: referenced manual not found: /d')"
}

# A word like "No" is also a macro's name, unless it is escaped.
QuotedMessagesAreShownWhole() {
    expect_explained 'No route'
    expect_explained 'Could not process rule: No such file or directory'
    expect_count 2
}

TheVersionIsTheDaemons() {
    expect_explained 'pmtud 0\.1\.0'
    expect_count 1
}

# Those below WARNING are never written.
EachStatementThatReachesStandardErrorIsExplained() {
    local file statement level number texts
    while IFS=$'\t' read -r file statement; do
        [[ $statement =~ ^QV_LOG(_IN)?\(([A-Z0-9]+),\ ([0-9]+)(,.*\")?\)(.*)$ ]] ||
            fail "not understood: $statement"
        level=${BASH_REMATCH[2]} number=${BASH_REMATCH[3]} texts=${BASH_REMATCH[5]}
        [[ $level == ERROR || $level == WARNING ]] || continue
        expect_explained "$level: \[${file%.cpp}:$number( \| [^]]*)?\]$(pattern "$texts")"
    done < <(statements 'QV_LOG(_IN)?\(' "$project"/src/{main,shm,pmtud,net}/*.cpp)
    expect_count 10
}

EachLineOfTheEngineInTheSystemLogIsExplained() {
    local file statement
    while IFS=$'\t' read -r file statement; do
        expect_explained "PMTUD-Prot:$(pattern "$statement")"
    done < <(statements 'QVDebugProcLog\(\)\.get' "$project"/src/*/*.cpp)
    expect_count 21
}

EachLineOfThePlatformInTheSystemLogIsExplained() {
    local file statement
    while IFS=$'\t' read -r file statement; do
        # A statement without a text gets it from a function, whose texts are checked below.
        if [[ $statement != *\"* ]]; then continue; fi
        expect_explained "PMTUD-Linux:$(pattern "$statement")"
    done < <(
        statements 'say\((?!Priority priority)' "$project"/platform/linux/*.cpp
        statements 'reportBurst\((?!Burst)' "$project"/platform/linux/dispatcher.cpp
    )
    expect_explained 'PMTUD-Linux: .* lines lost$'
    expect_explained 'PMTUD-Linux: nothing is served \('
    expect_explained 'PMTUD-Linux: cannot start the receive thread \('
    expect_count 16
}

EachResultOfAFailedStartHasItsRemedy() {
    local result
    for result in -1 -2 -12 -16 -22 -24 -93 -95 -97; do expect_explained "^ +$result( |$)"; done
    expect_count 9
}
