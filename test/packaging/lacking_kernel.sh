# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the daemon logs on a kernel that lacks a feature. Its requests for that feature are changed, so
# that this machine's kernel refuses them. The man page has a remedy for each line.

readonly daemon=$1 lacking_kernel=$2

# Waits until the system log holds everything logged so far, which a marker shows, and compares it.
expect_system_log() {
    printf '<31>Jan  1 00:00:00 pmtud[1]: marker' | socat -u STDIN UNIX-SENDTO:/dev/log
    expect "the marker is logged" lab_within 5 lab_syslog_has marker
    expect_equal "system log" "$1"$'\n'marker "$(lab_syslog)"
    : >"$LAB_FILES/syslog"
}

start_without() {
    lab_start_daemon "$daemon" env LD_PRELOAD="$lacking_kernel" PMTUD_LACKING="$1"
}

# expect_logged_without FEATURE RESULT LINE
expect_logged_without() {
    start_without "$1"
    expect_refused "$2"
    expect_system_log "89 PMTUD-Linux: $3"
    expect "it has no rules" lab_has_let_go
    # The kernel's own answer arrives.
    expect_answered_with 1400 1500
    lab_kill_daemon
}

EachMissingFeatureIsNamedInTheLog() { # IPv4 only
    lab_build_links 1500 1400
    start_without ""
    expect "the rules appear if nothing is missing" lab_within 5 lab_has_taken_over
    lab_kill_daemon
    expect_logged_without netfilter -93 \
        "nothing is served (-93): the kernel has no netfilter netlink; modprobe nfnetlink"
    expect_logged_without nfnetlink_log -22 \
        "nothing is served (-22): the kernel has no log target; modprobe nfnetlink_log"
    # The rules are refused for an unknown reason.
    expect_logged_without payload -2 \
        "cannot install the rules: Error: Could not process rule: No such file or directory"
    local feature result lacks
    while read -r feature result lacks <&3; do
        expect_logged_without "$feature" "$result" \
            "cannot install the rules: this kernel lacks $lacks"
    done 3<<'END'
nf_tables -22 nftables (nf_tables)
log -2 logging (nft_log)
fib -2 route lookups (nft_fib_inet)
objref -2 named counters and limits (nft_objref)
limit -2 limits (nft_limit)
dynset -2 dynamic sets (nf_tables)
lookup -2 sets (nf_tables)
skuid -95 matching a packet's user (nf_tables)
END
}
