# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# The systemd unit: how well it sandboxes the daemon, and that systemd understands it.

readonly unit=$project/packaging/pmtud.service daemon=$1

# analyze TENTHS
# systemd-analyze's verdict on the unit; the status is 0 up to that many tenths of a point.
analyze() {
    systemd-analyze security --offline=true --no-pager --threshold="$1" "$unit"
}

ExposureIsAtMost17() {
    analyze 17 >"$scratch/verdict" || fail "$(tail -n 1 "$scratch/verdict")"
}

OnlyWhatTheDaemonNeedsIsOpen() {
    # The marks for good and bad depend on the locale.
    LC_ALL=C.UTF-8 analyze 100 >"$scratch/verdict"
    expect_equal "what is open" "AmbientCapabilities=
CapabilityBoundingSet=~CAP_NET_(BIND_SERVICE|BROADCAST|RAW)
CapabilityBoundingSet=~CAP_NET_ADMIN
DeviceAllow=
IPAddressDeny=
PrivateNetwork=
PrivateUsers=
RestrictAddressFamilies=~AF_(INET|INET6)
RestrictAddressFamilies=~AF_NETLINK
RestrictAddressFamilies=~AF_PACKET
RestrictAddressFamilies=~AF_UNIX
RootDirectory=/RootImage=" "$(sed -nE 's/^✗ +([^ ]+) .*/\1/p' "$scratch/verdict" | LC_ALL=C sort)"
}

# The daemon is in the build folder, not yet in the place that the unit names.
SystemdUnderstandsEveryLine() {
    sed "s|=/usr/sbin/pmtud\$|=$daemon|" "$unit" >"$scratch/pmtud.service"
    expect_line "the unit" "ExecStart=$daemon" "$(<"$scratch/pmtud.service")"
    expect_equal "systemd's complaints" "" \
        "$(systemd-analyze verify --man=no "$scratch/pmtud.service" 2>&1)"
}
