# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# What the daemon says, to the letter, where something is not as it should be: the lines for which
# the man page has a remedy.

said() {
    sed -E -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9] //' -e 's/\r$//' "$lab_daemon_output"
}

has_said() {
    grep -Fq -- "$1" "$lab_daemon_output"
}

# What is in the system log behind all that was said so far, which a marker shows to be in.
expect_system_log() {
    printf '<31>Jan  1 00:00:00 pmtud[1]: marker' | socat -u STDIN UNIX-SENDTO:/dev/log
    expect "the marker is logged" lab_within 5 lab_syslog_has marker
    expect_equal "system log" "${1:+$1$'\n'}marker" "$(lab_syslog)"
}

# expect_said_of_kernel_without PART RESULT LINE_OF_SYSTEM_LOG
expect_said_of_kernel_without() {
    lab_build
    lab_start_daemon "$daemon" env LD_PRELOAD="$PMTUD_LACKING_KERNEL" PMTUD_LACKING="$1"
    expect "it says so" lab_within 5 has_said 'Could not initialize SHM'$'\r'
    expect_equal "standard error" \
        "ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()] Could not initialize SHM queue, ret=$2
ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM" "$(said)"
    expect_system_log "$3"
    expect "it has no rules" lab_has_let_go
    expect "it stays" test -d "/proc/$lab_daemon"
    # Without the hardware's silence the kernel's own answer arrives.
    lab_remove_hardware
    expect_answered_with 1400 1500
}

KernelThatLacksNothingIsServed() {
    lab_build
    lab_start_serving "$daemon" env LD_PRELOAD="$PMTUD_LACKING_KERNEL" PMTUD_LACKING=
    expect_answered_with 1400 1500
}

KernelWithoutNetfilterNetlinkGives93AndItsReason() {
    expect_said_of_kernel_without netfilter -93 "89 PMTUD-Linux: nothing is served (-93):\
 the kernel has no netfilter netlink; modprobe nfnetlink"
}

# expect_rules_refused_without PART RESULT WHAT_IT_LACKS
expect_rules_refused_without() {
    expect_said_of_kernel_without "$1" "$2" "89 PMTUD-Linux: the rules could not be installed:\
 this kernel lacks $3"
}

KernelWithoutNfTablesGives22AndItsReason() {
    expect_rules_refused_without nf_tables -22 "nftables (nf_tables)"
}

KernelWithoutLogExpressionGives2AndItsReason() {
    expect_rules_refused_without log -2 "logging (nft_log)"
}

KernelWithoutFibExpressionGives2AndItsReason() {
    expect_rules_refused_without fib -2 "route lookups (nft_fib_inet)"
}

KernelWithoutNamedCountersGives2AndItsReason() {
    expect_rules_refused_without objref -2 "named counters and limits (nft_objref)"
}

KernelWithoutLimitsGives2AndItsReason() {
    expect_rules_refused_without limit -2 "limits (nft_limit)"
}

KernelWithoutDynamicSetsGives2AndItsReason() {
    expect_rules_refused_without dynset -2 "dynamic sets (nf_tables)"
}

KernelWithoutLookupsGives2AndItsReason() {
    expect_rules_refused_without lookup -2 "sets (nf_tables)"
}

KernelWithoutSendersUserGives95AndItsReason() {
    expect_rules_refused_without skuid -95 "matching the user who sent a packet (nf_tables)"
}

KernelThatRefusesTheRulesForAnotherReasonGivesItsReason() {
    expect_said_of_kernel_without payload -2 "89 PMTUD-Linux: the rules could not be installed:\
 Error: Could not process rule: No such file or directory"
}

KernelWithoutLogTargetGives22AndItsReason() {
    expect_said_of_kernel_without nfnetlink_log -22 "89 PMTUD-Linux: nothing is served (-22):\
 the kernel has no log target; modprobe nfnetlink_log"
}

RunThatCannotBeWrittenIsNoMatter() {
    lab_build
    lab_start_serving "$daemon" unshare --mount sh -c 'mount -o remount,bind,ro /run; exec "$@"' sh
    expect_answered_with 1400 1500
    expect_equal "standard error" "" "$(said)"
    [[ ! -e /run/pmtud.pid && ! -e /run/pmtud.registered ]] || fail "it wrote into /run"
}

EgressThatIsDownIsTheKernelsToAnswer() {
    lab_build
    lab_start_serving "$daemon"
    ip -n switch link set bcm0.20 down
    expect_line "ping of 1500 bytes" "$(by_family \
        'From 10.0.10.1 icmp_seq=1 Destination Net Unreachable' \
        'From 2001:db8:10::1 icmp_seq=1 Destination unreachable: No route')" "$(ping_size 1500)"
    expect_equal "standard error" "" "$(said)"
    expect_system_log ""
}

EgressThatComesUpIsServed() {
    lab_build
    ip -n switch link set bcm0.20 down
    lab_start_serving "$daemon"
    ip -n switch link set bcm0.20 up
    lab_await 5 "the link" lab_has_carrier switch bcm0.20
    # Its IPv6 address went with the link.
    ip -n switch address replace 2001:db8:20::1/64 dev bcm0.20 nodad
    expect_answered_with 1400 1500
}
