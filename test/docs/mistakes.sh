# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# Gives the documents' checks a document with a mistake, which they must notice.

readonly build=$1
readonly document=$scratch/document.md

# expect_noticed GOOD BAD [CHECK...]
# Checks that the check, run_blocks by default, accepts the first document and rejects the second.
expect_noticed() {
    local -a check=("${@:3}")
    if ((${#check[@]} == 0)); then check=("$project/test/docs/run_blocks" "$build"); fi
    echo "$1" >"$document"
    "${check[@]}" "$document"
    echo "$2" >"$document"
    if "${check[@]}" "$document"; then fail "nothing was noticed"; fi
}

# expect_noticed_in_block GOOD BAD
# The same with a block's text, from the words after the fence on.
expect_noticed_in_block() {
    expect_noticed "\`\`\`$1"$'\n```' "\`\`\`$2"$'\n```'
}

CommandThatFails() {
    expect_noticed_in_block $'sh\ntrue\ntrue' $'sh\nfalse\ntrue'
}

TranscriptThatDiffersFromTheOutput() {
    expect_noticed_in_block $'console lab bare\na$ echo one two\none ...' \
        $'console lab bare\na$ echo one two\ntwo ...'
}

TranscriptThatLeavesOutALine() {
    local -r command=$'console lab bare\na$ printf "one\\ntwo\\nthree\\n"'
    expect_noticed_in_block "$command"$'\none\n...\nthree' "$command"$'\none\nthree'
}

TranscriptOfACommandThatDoesNotExist() {
    expect_noticed_in_block $'console lab bare\na$ ls /no-such-file\n...' \
        $'console lab bare\na$ no-such-command\n...'
}

CommandWithUnexpectedOutput() {
    expect_noticed_in_block $'console lab bare\na$ true' $'console lab bare\na$ echo word'
}

DaemonWithUnexpectedOutput() {
    expect_noticed_in_block $'console lab bare\nswitch$ pmtud &\na$ true' \
        $'console lab\nswitch$ pmtud &\na$ true'
}

BlockOfAnUnknownKind() {
    expect_noticed_in_block $'text\n$ echo (' $'bash\necho'
}

CommandWithASyntaxError() {
    expect_noticed_in_block $'console\n# echo "("\nwritten (' $'console\n# echo ('
}

BlockOfAProjectThatGitCannotList() {
    mkdir -p "$scratch/test/docs"
    cp "$project/test/docs/run_blocks" "$scratch/test/docs"
    echo $'```sh\ntrue\n```' >"$document"
    git init --quiet "$scratch"
    "$scratch/test/docs/run_blocks" "$build" "$document"
    rm -r "$scratch/.git"
    if "$scratch/test/docs/run_blocks" "$build" "$document"; then fail "nothing was noticed"; fi
}

ScriptThatDoesNotExist() {
    expect_noticed_in_block $'console\n# script/test' $'console\n# script/no-such-script'
}

TableOfThePlatformThatNamesAnUnknownSymbol() {
    local table
    table=$'| header | function or object |\n'$(
        "$project/test/support/platform_symbols" | sed "s/.*/| | \`&\` |/")
    expect_noticed "$table" "${table/updateTZ/updateTz}" "$project/test/docs/names_platform_symbols"
}
