# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# The service under systemd itself, on the lab's switch: shut off from all else, it does its work.

here_of_service=$(dirname "${BASH_SOURCE[0]}")
# shellcheck source=test/packaging/copy.sh
source "$here_of_service/copy.sh"
# shellcheck source=test/packaging/boot.sh
source "$here_of_service/boot.sh"

start_service() {
    lab_build
    boot_install "$(dirname "$daemon")/.."
    boot_service
    expect "the rules come" lab_within 5 lab_has_taken_over
}

status_of_daemon() {
    sed -nE "s/^$1:\t+//p" "/proc/$lab_daemon/status"
}

ServiceAnswers() {
    start_service
    expect_answered_with 1400 1500
}

ServiceAnswersAgainAfterItWasKilled() {
    start_service
    kill -KILL "$lab_daemon"
    boot_await_process "$lab_daemon"
    expect "the rules come" lab_within 5 lab_has_taken_over
    expect_answered_with 1400 1500
}

ServiceHasItsTwoCapabilitiesAndCanGainNoOthers() { # IPv4 only
    start_service
    local set
    for set in CapInh CapPrm CapEff CapBnd CapAmb; do
        expect_equal "$set" 0000000000003000 "$(status_of_daemon "$set")"
    done
    expect_equal "no new privileges" 1 "$(status_of_daemon NoNewPrivs)"
}

ServiceIsNotRootAndItsSystemCallsAreFiltered() { # IPv4 only
    start_service
    expect_match "its user" '^[1-9][0-9]*' "$(status_of_daemon Uid)"
    expect_equal "its filter of system calls" 2 "$(status_of_daemon Seccomp)"
}

ServiceCanNeitherWriteNorExecuteWhatItFinds() { # IPv4 only
    start_service
    local options
    options=$(awk '$5 == "/" { print $6 }' "/proc/$lab_daemon/mountinfo" | tail -n 1)
    expect_match "the file system" '^ro,.*\bnoexec\b' "$options"
}

ServiceHasItsFilesInRunPmtud() { # IPv4 only
    start_service
    expect_equal "the files in /run" "/run/pmtud/pmtud.pid
/run/pmtud/pmtud.registered" "$(cd "$copy" && find run -name 'pmtud.*' -type f -printf '/%p\n' | sort)"
    expect_equal "who is registered" "$(status_of_daemon NSpid | awk '{ print $NF }')" \
        "$(<"$copy/run/pmtud/pmtud.registered")"
}

JournalTellsOfTheAnswer() {
    start_service
    expect_answered_with 1400 1500
    expect "the journal has it" lab_within 5 boot_journal_has "$(by_family \
        '89 PMTUD-Prot: ICMP message sent to source 10.0.10.2' \
        '89 PMTUD-Prot: ICMPv6 message sent to source 2001:db8:10::2')"
}

# The same black hole as without the daemon, if only single hosts elsewhere may be sent to.
ServiceCanSendOnlyWhereItsAddressesAllow() {
    lab_build
    boot_install "$(dirname "$daemon")/.."
    sed -i -e '/^IPAddressAllow=/d' -e 's|^IPAddressDeny=.*|&\nIPAddressAllow=192.0.2.0/24|' \
        "$copy/usr/lib/systemd/system/pmtud.service"
    boot_service
    expect "the rules come" lab_within 5 lab_has_taken_over
    expect_match "ping of 1500 bytes" ' 0 received, 100% packet loss' "$(ping_size 1500)"
    expect "it got the packet" lab_within 5 boot_journal_has 'Received IPv'
}

# Asks the systemd of the switch, whose sockets are in the copy.
ask_systemd() {
    nsenter --target "$(boot_init)" --all --root systemctl "$@"
}

ServiceThatServesIsActiveAndReportsWhat() { # IPv4 only
    start_service
    expect "it is active" lab_within 10 ask_systemd --quiet is-active pmtud.service
    expect_equal "its status" "serving 2 VLANs" \
        "$(ask_systemd show --property=StatusText --value pmtud.service)"
}

is_activating_or_gone() {
    ! ask_systemd --quiet is-active pmtud.service
}

ServiceWithoutItsCapabilitiesIsNotActiveAndReportsTheCause() { # IPv4 only
    lab_build
    boot_install "$(dirname "$daemon")/.."
    sed -i '/^AmbientCapabilities=/d' "$copy/usr/lib/systemd/system/pmtud.service"
    boot_service
    expect "its last line" lab_within 5 boot_journal_has "PMTUDApp:72"
    expect_match "the journal" "PMTUD-Linux: nothing is served \\(-1\\): CAP_NET_ADMIN or CAP_NET_RAW" \
        "$(boot_journal)"
    expect "it is not active" is_activating_or_gone
}

# The process is there, and another one than before.
expect_restarted() {
    boot_await_process "$lab_daemon"
    expect "the rules come" lab_within 10 lab_has_taken_over
}

ServiceThatHangsIsKilledAndStartedAgain() { # IPv4 only
    start_service
    kill -STOP "$lab_daemon"
    expect_restarted
    expect_answered_with 1400 1500
}

ServiceThatIsHungUpIsStartedAgain() { # IPv4 only
    start_service
    kill -HUP "$lab_daemon"
    expect_restarted
    expect_answered_with 1400 1500
}

ServiceIsStartedAgainAfterTenQuickDeaths() { # IPv4 only
    start_service
    local -i death
    for ((death = 0; death < 10; ++death)); do
        kill -KILL "$lab_daemon"
        boot_await_process "$lab_daemon"
    done
    expect "the rules come" lab_within 10 lab_has_taken_over
    expect_answered_with 1400 1500
}
