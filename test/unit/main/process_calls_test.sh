#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks that a built daemon does not call what would detach it, handle signals, read settings or
# write to standard output.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 ]]; then
    echo "usage: ${0##*/} NM PROGRAM"
    echo "Succeeds if PROGRAM uses none of the C library's calls that the daemon does without."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

symbols=$("$1" --dynamic --undefined-only "$2" | awk '{ sub(/@.*/, "", $2); print $2 }')
# So that an empty or unreadable list is not taken for a good one.
grep -qx flock <<<"$symbols"

unwanted='fork|vfork|clone|posix_spawn|daemon|setsid|setpgid|setpgrp|dup2|chdir'
unwanted+='|signal|sigaction|sigprocmask|pthread_sigmask|signalfd|sigwait'
unwanted+='|getenv|secure_getenv|environ|__environ|setlocale|write|ftruncate|ftruncate64|unlink'
unwanted+='|puts|putchar|printf|__printf_chk|stdout|_ZSt4cout'
if grep -xE "$unwanted" <<<"$symbols"; then
    echo "$2: calls these" >&2
    exit 1
fi
