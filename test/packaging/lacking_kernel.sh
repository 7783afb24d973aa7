# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# What the daemon says on a kernel that lacks something, whose answers are changed on the way in.

# shellcheck source=test/packaging/conditions.sh
source "$(dirname "${BASH_SOURCE[0]}")/conditions.sh"

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

KernelWithoutNetfilterNetlinkGives93AndItsReason() { # IPv4 only
    expect_said_of_kernel_without netfilter -93 "89 PMTUD-Linux: nothing is served (-93):\
 the kernel has no netfilter netlink; modprobe nfnetlink"
}

# expect_rules_refused_without PART RESULT WHAT_IT_LACKS
expect_rules_refused_without() {
    expect_said_of_kernel_without "$1" "$2" "89 PMTUD-Linux: the rules could not be installed:\
 this kernel lacks $3"
}

KernelWithoutNfTablesGives22AndItsReason() { # IPv4 only
    expect_rules_refused_without nf_tables -22 "nftables (nf_tables)"
}

KernelWithoutLogExpressionGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without log -2 "logging (nft_log)"
}

KernelWithoutFibExpressionGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without fib -2 "route lookups (nft_fib_inet)"
}

KernelWithoutNamedCountersGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without objref -2 "named counters and limits (nft_objref)"
}

KernelWithoutLimitsGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without limit -2 "limits (nft_limit)"
}

KernelWithoutDynamicSetsGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without dynset -2 "dynamic sets (nf_tables)"
}

KernelWithoutLookupsGives2AndItsReason() { # IPv4 only
    expect_rules_refused_without lookup -2 "sets (nf_tables)"
}

KernelWithoutSendersUserGives95AndItsReason() { # IPv4 only
    expect_rules_refused_without skuid -95 "matching the user who sent a packet (nf_tables)"
}

KernelThatRefusesTheRulesForAnotherReasonGivesItsReason() { # IPv4 only
    expect_said_of_kernel_without payload -2 "89 PMTUD-Linux: the rules could not be installed:\
 Error: Could not process rule: No such file or directory"
}

KernelWithoutLogTargetGives22AndItsReason() { # IPv4 only
    expect_said_of_kernel_without nfnetlink_log -22 "89 PMTUD-Linux: nothing is served (-22):\
 the kernel has no log target; modprobe nfnetlink_log"
}
