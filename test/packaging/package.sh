# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# The Debian packages: what is in them, and what they do to a system.

# Case Builds builds them in this folder; the others look at those that are there.
readonly folder=$1
# shellcheck source=test/packaging/copy.sh
source "$project/test/packaging/copy.sh"
architecture=$(dpkg --print-architecture)
libraries=usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)/pmtud
# Where this release keeps units: some still have them outside of /usr.
units=$(dpkg-query --listfiles systemd | grep -xE '(/usr)?/lib/systemd/system')
daemon_package=$(echo "$folder"/pmtud_*_"$architecture".deb)
headers_package=$(echo "$folder"/pmtud-dev_*_all.deb)

# Also fails if lintian finds anything.
Builds() {
    rm -rf "$folder"
    mkdir -p "$folder/source"
    "$project/script/package" "$folder" >"$scratch/log" 2>&1 || fail "$(tail -n 30 "$scratch/log")"
    expect "a folder that was there before is kept" test -d "$folder/source"
}

ThesePackagesAreBuiltAndNoOthers() {
    expect_equal "the packages" "pmtud
pmtud-dbgsym
pmtud-dev" "$(cd "$folder" && printf '%s\n' *.deb | sed 's/_.*//' | LC_ALL=C sort)"
}

# content PACKAGE
# Mode, owner and name of everything that is not a folder.
content() {
    dpkg-deb --contents "$1" | awk '$1 !~ /^d/ { print $1, $2, $6 }' | LC_ALL=C sort -k 3
}

DaemonPackageHasExactlyTheseFiles() {
    expect_equal "the files" "$(LC_ALL=C sort -k 3 <<END
-rw-r--r-- root/root .$units/pmtud.service
lrwxrwxrwx root/root ./$libraries/libpmtud-platform.so.1
-rw-r--r-- root/root ./$libraries/libpmtud-platform.so.1.0.0
-rwxr-xr-x root/root ./usr/sbin/pmtud
-rw-r--r-- root/root ./usr/share/doc/pmtud/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/pmtud/copyright
-rw-r--r-- root/root ./usr/share/doc/pmtud/operating.md
-rw-r--r-- root/root ./usr/share/man/man8/pmtud.8.gz
END
)" "$(content "$daemon_package")"
}

HeadersPackageHasExactlyTheseFiles() {
    expect_equal "the files" "-rw-r--r-- root/root ./usr/include/pmtud/arpd.h
-rw-r--r-- root/root ./usr/include/pmtud/cfg.h
-rw-r--r-- root/root ./usr/include/pmtud/debug_process.h
-rw-r--r-- root/root ./usr/include/pmtud/pktd.h
-rw-r--r-- root/root ./usr/include/pmtud/pktd_record.h
-rw-r--r-- root/root ./usr/share/doc/pmtud-dev/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/pmtud-dev/copyright
-rw-r--r-- root/root ./usr/share/doc/pmtud-dev/porting.md
-rw-r--r-- root/root ./usr/share/pkgconfig/pmtud.pc" "$(content "$headers_package")"
}

TheirDocumentsHaveNoLinksToFiles() {
    local package
    for package in "$daemon_package" "$headers_package"; do
        dpkg-deb --extract "$package" "$scratch/root"
    done
    expect_equal "their links to files" "" \
        "$(grep -rohE --include='*.md' '\]\([^)#]+\)' "$scratch/root/usr/share/doc" | grep -v '](http')"
}

ItsVersionIsTheProjectsAndTheChangelogs() {
    local changelog
    changelog=$(dpkg-parsechangelog -l "$project/debian/changelog" -S Version)
    expect_equal "the version" "$changelog" "$(dpkg-deb -f "$daemon_package" Version)"
    expect_equal "the headers' version" "$changelog" "$(dpkg-deb -f "$headers_package" Version)"
    local project_version
    project_version=$(sed -nE 's/^project\(pmtud VERSION ([0-9.]+) .*/\1/p' "$project/CMakeLists.txt")
    expect_equal "the project's version" "$changelog" "$project_version"
}

ItDependsOnTheLibrariesThatItCalls() {
    expect_equal "what it depends on" \
        "libc6 libgcc-s1 libmnl0 libnetfilter-log1 libnftables1 libstdc++6 libsystemd0" \
        "$(dpkg-deb -f "$daemon_package" Depends | sed 's/ ([^)]*)//g' | tr -d ' ' | tr ',' '\n' |
            LC_ALL=C sort | xargs)"
}

# in_copy COMMAND [ARGUMENT...]
in_copy() {
    # The packages' scripts find their programs in these folders.
    chroot "$copy" env PATH=/usr/sbin:/usr/bin DEBIAN_FRONTEND=noninteractive "$@" \
        >"$scratch/log" 2>&1 || fail "$*: $(<"$scratch/log")"
}

install_in_copy() {
    cp "$daemon_package" "$copy/tmp/pmtud.deb"
    in_copy dpkg -i /tmp/pmtud.deb
}

# Files whose names contain pmtud and that were not on this machine before.
traces() {
    (cd "$copy" && find etc lib/systemd/system run "${libraries%/*}" usr/sbin usr/share/doc \
        usr/share/man var/lib/dpkg/info var/lib/systemd -name '*pmtud*' | LC_ALL=C sort)
}

# From then on, systemd appears to run in the copy, with everything enabled and active. Requests to it
# are recorded.
record_systemctl() {
    mkdir -p "$copy/run/systemd/system"
    # The build machine's policy must not affect the test.
    rm -f "$copy/usr/bin/systemctl" "$copy/usr/sbin/policy-rc.d"
    cat >"$copy/usr/bin/systemctl" <<'END'
#!/bin/sh
echo "$*" >>/tmp/asked
case "$*" in *is-enabled*) echo enabled ;; esac
END
    chmod 755 "$copy/usr/bin/systemctl"
}

# The requests to systemd since the last call.
asked() {
    grep -E '(daemon-reload|start|stop|restart)' "$copy/tmp/asked"
    : >"$copy/tmp/asked"
}

InstallingEnablesTheServiceAndStartsNothingWithoutSystemd() {
    make_copy
    install_in_copy
    expect_equal "where the link leads" "$units/pmtud.service" \
        "$(readlink "$copy/etc/systemd/system/multi-user.target.wants/pmtud.service")"
    expect "it was not started" test ! -e "$copy/run/pmtud.pid"
}

PurgingLeavesNothingBehind() {
    make_copy
    expect_equal "what was there before" "" "$(traces)"
    install_in_copy
    in_copy dpkg -P pmtud
    expect_equal "what is left" "" "$(traces)"
}

RemovingKeepsWhetherItWasEnabledAndNothingElse() {
    make_copy
    install_in_copy
    in_copy dpkg -r pmtud
    expect_equal "what is left" "etc/systemd/system/multi-user.target.wants/pmtud.service
var/lib/dpkg/info/pmtud.list
var/lib/dpkg/info/pmtud.postrm
var/lib/systemd/deb-systemd-helper-enabled/multi-user.target.wants/pmtud.service
var/lib/systemd/deb-systemd-helper-enabled/pmtud.service.dsh-also" "$(traces)"
}

UpgradingKeepsAServiceDisabledThatTheAdministratorDisabled() {
    make_copy
    install_in_copy
    rm "$copy/etc/systemd/system/multi-user.target.wants/pmtud.service"
    install_in_copy
    expect "it is still disabled" \
        test ! -L "$copy/etc/systemd/system/multi-user.target.wants/pmtud.service"
}

SystemdIsAskedToStartRestartAndStopIt() {
    make_copy
    record_systemctl
    install_in_copy
    expect_equal "at the installation" "--system daemon-reload
--quiet --system start pmtud.service" "$(asked)"
    install_in_copy
    expect_equal "at an upgrade" "--system daemon-reload
--quiet --system restart pmtud.service" "$(asked)"
    in_copy dpkg -r pmtud
    expect_equal "at the removal" "stop pmtud.service
--system daemon-reload" "$(asked)"
}

PolicyThatForbidsItKeepsItFromBeingStarted() {
    make_copy
    record_systemctl
    printf '#!/bin/sh\nexit 101\n' >"$copy/usr/sbin/policy-rc.d"
    chmod 755 "$copy/usr/sbin/policy-rc.d"
    install_in_copy
    expect_equal "at the installation" "--system daemon-reload" "$(asked)"
}
