# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Takes the fenced blocks out of a document.
#
# What follows a fence says what becomes of its block:
#   sh                 run as it stands, in a copy of the project
#   console lab        a transcript of the lab in which pmtud serves; played, and held against
#                      what is written under each command
#   console lab bare   the same in a lab without pmtud
#   console            its commands, behind "$ " or "# ", are only read for their syntax
#   anything else      no commands

# blocks_of DOCUMENT
# A line for each block with its first line's number, a tab and what follows the fence.
blocks_of() {
    awk '/^```/ {
        if (open) { open = 0; next }
        open = 1
        print NR + 1 "\t" substr($0, 4)
    }' "$1"
}

# block_at DOCUMENT LINE
# The block that begins at the line.
block_at() {
    sed -n "$2"',${/^```/q;p}' "$1"
}
