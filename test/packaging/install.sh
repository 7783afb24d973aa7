#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What "cmake --install" puts where, and that it works there.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 ]]; then
    echo "usage: ${0##*/} CASE BUILD"
    echo "Installs what is in the folder BUILD into a folder of its own. Ends with status 0 where"
    echo "all that CASE expects of it is so."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

# shellcheck source=test/packaging/expect.sh
source "$(dirname "${BASH_SOURCE[0]}")/expect.sh"
readonly build=$2

install_to() {
    cmake --install "$build" --prefix "$1" >"$scratch/log"
}

ItPutsExactlyTheseFilesBelowThePrefix() {
    install_to "$scratch/prefix"
    expect_equal "the files" "include/pmtud/arpd.h
include/pmtud/cfg.h
include/pmtud/debug_process.h
include/pmtud/pktd.h
include/pmtud/pktd_record.h
lib/pmtud/libpmtud-platform.so.1
lib/pmtud/libpmtud-platform.so.1.0.0
lib/systemd/system/pmtud.service
sbin/pmtud
share/man/man8/pmtud.8" "$(cd "$scratch/prefix" && find . ! -type d -printf '%P\n' | LC_ALL=C sort)"
}

TheDaemonFindsItsLibraryAlsoWhereTheTreeIsMoved() {
    install_to "$scratch/prefix"
    mv "$scratch/prefix" "$scratch/moved"
    local found
    found=$(ldd "$scratch/moved/sbin/pmtud" | awk '$1 == "libpmtud-platform.so.1" { print $3 }')
    expect_equal "the library" "$(realpath "$scratch/moved/lib/pmtud/libpmtud-platform.so.1")" \
        "$(realpath "$found")"
}

TheUnitStartsTheInstalledDaemon() {
    install_to "$scratch/prefix"
    local -r unit=$scratch/prefix/lib/systemd/system/pmtud.service
    expect_equal "what it starts and what may be executed" "ExecStart=$scratch/prefix/sbin/pmtud
ExecPaths=$scratch/prefix/lib/pmtud $scratch/prefix/sbin/pmtud /usr/lib" \
        "$(grep -E '^Exec' "$unit")"
    expect_equal "what systemd says of it" "" "$(systemd-analyze verify --man=no "$unit" 2>&1)"
}

TheUnitBelowUsrIsTheOneOfTheSources() {
    DESTDIR=$scratch/root install_to /usr
    cmp "$scratch/root/usr/lib/systemd/system/pmtud.service" \
        "$(dirname "${BASH_SOURCE[0]}")/../../packaging/pmtud.service" || fail "they differ"
}

EachHeaderCompilesAloneAsCAndAsCxx() {
    install_to "$scratch/prefix"
    local header language
    for header in "$scratch"/prefix/include/pmtud/*.h; do
        for language in c c++; do
            cc -x "$language" -fsyntax-only -Wall -Wextra -Werror "$header" ||
                fail "${header##*/} as $language"
        done
    done
}

run_case "$1"
