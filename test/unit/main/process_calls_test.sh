#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks that a built daemon makes no calls that would detach it, handle signals, read settings or
# write to standard output.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 ]]; then
    echo "usage: ${0##*/} NM PROGRAM"
    echo "Succeeds if PROGRAM makes none of the C library's calls that the daemon must not make."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

symbols=$("$1" --dynamic --undefined-only "$2" | awk '{ sub(/@.*/, "", $2); print $2 }')
# An empty or unreadable list must not pass.
grep -qx flock <<<"$symbols"

unwanted='fork|vfork|clone|posix_spawn|daemon|setsid|setpgid|setpgrp|dup2|chdir'
unwanted+='|signal|sigaction|sigprocmask|pthread_sigmask|signalfd|sigwait'
unwanted+='|getenv|secure_getenv|environ|__environ|setlocale|write|ftruncate|ftruncate64|unlink'
unwanted+='|puts|putchar|printf|__printf_chk|stdout|_ZSt4cout'
if grep -xE "$unwanted" <<<"$symbols"; then
    echo "$2: must not call these" >&2
    exit 1
fi
