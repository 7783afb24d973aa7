# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and project are run_case's
# The service under a real systemd, on the lab's switch: it works in its sandbox.

readonly daemon=$1
# shellcheck source=test/packaging/copy.sh
source "$project/test/packaging/copy.sh"
# shellcheck source=test/packaging/boot.sh
source "$project/test/packaging/boot.sh"

# start_service [SED_EXPRESSION...]
# Starts the service, with the unit file changed by the expressions.
start_service() {
    lab_build
    boot_install "$(dirname "$daemon")/.."
    if (($# > 0)); then sed -i "$@" "$copy/usr/lib/systemd/system/pmtud.service"; fi
    boot_service
}

expect_serving() {
    expect "the rules appear" lab_within 10 lab_has_taken_over
    expect_answered_with 1400 1500
}

status_of_daemon() {
    sed -nE "s/^$1:\t+//p" "/proc/$lab_daemon/status"
}

# Sends a request to the switch's systemd, whose sockets are in the copy.
ask_systemd() {
    nsenter --target "$(boot_init)" --all --root systemctl "$@"
}

is_inactive() {
    ! ask_systemd --quiet is-active pmtud.service
}

# expect_restarted_after SIGNAL
# Checks that the service's process runs again, with a new PID.
expect_restarted_after() {
    kill -"$1" "$lab_daemon"
    boot_await_process "$lab_daemon"
}

ServiceThatHangsIsKilledAndRestarted() { # IPv4 only
    start_service
    expect_serving
    expect_restarted_after STOP
    expect_serving
}

ServiceIsRestartedAfterAHangUpAndTenQuickDeaths() { # IPv4 only
    start_service
    expect_serving
    expect_restarted_after HUP
    expect_serving
    local -i death
    for ((death = 0; death < 10; ++death)); do expect_restarted_after KILL; done
    expect_serving
}

ServiceServesReportsAndIsSandboxed() {
    start_service
    expect_serving
    expect "the journal has it" lab_within 5 boot_journal_has "$(by_family \
        '89 PMTUD-Prot: ICMP message sent to source 10.0.10.2' \
        '89 PMTUD-Prot: ICMPv6 message sent to source 2001:db8:10::2')"
    expect "it is active" lab_within 10 ask_systemd --quiet is-active pmtud.service
    expect_equal "its status" "serving 2 VLANs" \
        "$(ask_systemd show --property=StatusText --value pmtud.service)"
    local set
    for set in CapInh CapPrm CapEff CapBnd CapAmb; do
        expect_equal "$set" 0000000000003000 "$(status_of_daemon "$set")"
    done
    expect_equal "no new privileges" 1 "$(status_of_daemon NoNewPrivs)"
    expect_match "its user" '^[1-9][0-9]*' "$(status_of_daemon Uid)"
    expect_equal "its filter of system calls" 2 "$(status_of_daemon Seccomp)"
    expect_match "the file system" '^ro,.*\bnoexec\b' \
        "$(awk '$5 == "/" { print $6 }' "/proc/$lab_daemon/mountinfo" | tail -n 1)"
    expect_equal "the files in /run" "/run/pmtud/pmtud.pid
/run/pmtud/pmtud.registered" "$(cd "$copy" && find run -name 'pmtud.*' -type f -printf '/%p\n' | sort)"
    expect_equal "who is registered" "$(status_of_daemon NSpid | awk '{ print $NF }')" \
        "$(<"$copy/run/pmtud/pmtud.registered")"
}

# With a unit that allows only other destinations, the black hole is back.
ServiceCanSendOnlyWhereItsAddressesAllow() {
    start_service -e '/^IPAddressAllow=/d' \
        -e 's|^IPAddressDeny=.*|&\nIPAddressAllow=192.0.2.0/24|'
    expect "the rules appear" lab_within 10 lab_has_taken_over
    expect_match "ping of 1500 bytes" ' 0 received, 100% packet loss' "$(ping_size 1500)"
    expect "it got the packet" lab_within 5 boot_journal_has 'Received IPv'
}

ServiceWithoutItsCapabilitiesIsNotActiveAndReportsTheCause() { # IPv4 only
    start_service -e '/^AmbientCapabilities=/d'
    expect "its last line" lab_within 5 boot_journal_has "PMTUDApp:72"
    expect_match "the journal" \
        "PMTUD-Linux: nothing is served \\(-1\\): CAP_NET_ADMIN or CAP_NET_RAW" "$(boot_journal)"
    expect "it is not active" is_inactive
}
