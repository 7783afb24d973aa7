# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# What "cmake --install" installs where, and that it works there.

readonly build=$1

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
share/doc/pmtud/LICENSE
share/doc/pmtud/operating.md
share/man/man8/pmtud.8
share/pkgconfig/pmtud.pc" "$(cd "$scratch/prefix" && find . ! -type d -printf '%P\n' | LC_ALL=C sort)"
}

TheDaemonFindsItsLibraryInATreeThatWasMoved() {
    install_to "$scratch/prefix"
    mv "$scratch/prefix" "$scratch/moved"
    local found
    found=$(ldd "$scratch/moved/sbin/pmtud" | awk '$1 == "libpmtud-platform.so.1" { print $3 }')
    expect_equal "the library" "$(realpath "$scratch/moved/lib/pmtud/libpmtud-platform.so.1")" \
        "$(realpath "$found")"
}

InstallationsAtTheSameTimeInstallTheirOwnUnits() {
    local -i round i
    for ((round = 0; round < 3; ++round)); do
        rm -rf "$scratch"/prefix*
        for ((i = 0; i < 6; ++i)); do
            cmake --install "$build" --prefix "$scratch/prefix$i" --component service >"$scratch/log$i" &
        done
        wait
        for ((i = 0; i < 6; ++i)); do
            expect_equal "what it starts" "ExecStart=$scratch/prefix$i/sbin/pmtud" \
                "$(grep '^ExecStart=' "$scratch/prefix$i/lib/systemd/system/pmtud.service")"
        done
    done
}

# expect_unit PREFIX LINES
# Checks what the unit below the prefix may execute, and that systemd accepts it.
expect_unit() {
    local -r unit=$1/lib/systemd/system/pmtud.service
    expect_equal "what it starts and what may be executed" "$2" "$(grep '^Exec' "$unit")"
    expect_equal "systemd's complaints" "" "$(systemd-analyze verify --man=no "$unit" 2>&1)"
}

TheUnitStartsTheInstalledDaemon() {
    install_to "$scratch/prefix"
    expect_unit "$scratch/prefix" "ExecStart=$scratch/prefix/sbin/pmtud
ExecPaths=$scratch/prefix/sbin/pmtud /usr/lib -/usr/lib64 $scratch/prefix/lib/pmtud"
}

TheUnitStartsTheDaemonBelowAPrefixWithBlanksAndPercentSigns() {
    install_to "$scratch/my 100%"
    expect_unit "$scratch/my 100%" "ExecStart=\"$scratch/my 100%%/sbin/pmtud\"
ExecPaths=\"$scratch/my 100%%/sbin/pmtud\" /usr/lib -/usr/lib64 \"$scratch/my 100%%/lib/pmtud\""
}

TheUnitStartsTheDaemonBelowARelativePrefix() {
    (cd "$scratch" && install_to prefix)
    expect_equal "what it starts" "ExecStart=$scratch/prefix/sbin/pmtud" \
        "$(grep '^ExecStart=' "$scratch/prefix/lib/systemd/system/pmtud.service")"
}

TheUnitBelowUsrIsTheSourcesUnit() {
    DESTDIR=$scratch/root install_to /usr
    cmp "$scratch/root/usr/lib/systemd/system/pmtud.service" \
        "$project/packaging/pmtud.service" || fail "they differ"
}

# unit_of PREFIX CMAKE_OPTION...
# Installs only the service, which needs no build, and prints what its unit may execute.
unit_of() {
    cmake -S "$project" -B "$scratch/build" -DBUILD_TESTING=OFF "${@:2}" >"$scratch/log"
    DESTDIR=$scratch/root cmake --install "$scratch/build" --prefix "$1" --component service \
        >"$scratch/log"
    find "$scratch/root" -name pmtud.service -printf '/%P\n' -exec grep '^Exec' {} +
}

TheUnitFollowsTheFoldersOfADistribution() {
    expect_equal "the unit" "/usr/lib/systemd/system/pmtud.service
ExecStart=/usr/bin/pmtud
ExecPaths=/usr/bin/pmtud /usr/lib -/usr/lib64" "$(unit_of /usr \
        -DCMAKE_INSTALL_SBINDIR=bin -DCMAKE_INSTALL_LIBDIR=lib64)"
}

TheUnitBelowTheRootFolderStartsTheDaemonThere() {
    expect_equal "the unit" "/lib/systemd/system/pmtud.service
ExecStart=/sbin/pmtud
ExecPaths=/sbin/pmtud /usr/lib -/usr/lib64 /lib/pmtud" "$(unit_of /)"
}

TheUnitBelowHomeMayReadIt() {
    unit_of /home/user/pmtud >"$scratch/unit"
    expect_equal "the protection" "ProtectHome=read-only" \
        "$(grep '^ProtectHome=' "$scratch/root/home/user/pmtud/lib/systemd/system/pmtud.service")"
}

TheUnitFollowsFoldersThatAreAbsolute() {
    expect_equal "the unit" "/store/pmtud/etc/systemd/system/pmtud.service
ExecStart=/store/pmtud/sbin/pmtud
ExecPaths=/store/pmtud/sbin/pmtud /store" "$(unit_of /store/pmtud \
        -DPMTUD_UNIT_DIR=etc/systemd/system -DCMAKE_INSTALL_SBINDIR=/store/pmtud/sbin \
        -DCMAKE_INSTALL_LIBDIR=/store/lib -DPMTUD_EXEC_PATHS=/store)"
}

PkgConfigFindsTheHeadersInATreeThatWasMoved() {
    install_to "$scratch/prefix"
    mv "$scratch/prefix" "$scratch/moved"
    export PKG_CONFIG_PATH=$scratch/moved/share/pkgconfig
    local -a flags
    read -ra flags < <(pkg-config --cflags pmtud)
    expect_equal "its version" 0.1.0 "$(pkg-config --modversion pmtud)"
    echo '#include <pktd.h>' | cc "${flags[@]}" -xc -E - | grep -F "/moved/" >"$scratch/found" ||
        fail "the header is not found with ${flags[*]}"
}

TheDaemonContainsItsVersion() {
    install_to "$scratch/prefix"
    expect_equal "the version" "pmtud 0.1.0" \
        "$(strings "$scratch/prefix/sbin/pmtud" | grep -x 'pmtud [0-9.]*' | sort -u)"
}

WithoutABuildTypeItIsOptimised() {
    cmake -S "$project" -B "$scratch/build" -DBUILD_TESTING=OFF >"$scratch/log"
    expect_equal "the build type" "CMAKE_BUILD_TYPE:STRING=RelWithDebInfo" \
        "$(grep '^CMAKE_BUILD_TYPE:' "$scratch/build/CMakeCache.txt")"
}

CMakeHasNoWarningForDevelopers() {
    cmake -S "$project" -B "$scratch/build" -Wdev -Wdeprecated 2>"$scratch/warnings" >"$scratch/log"
    expect_equal "its warnings" "" "$(<"$scratch/warnings")"
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
