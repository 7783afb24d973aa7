#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The systemd unit: how well it sandboxes the daemon, and that systemd understands it.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 3 ]]; then
    echo "usage: ${0##*/} CASE UNIT DAEMON"
    echo "Ends with status 0 where all that CASE expects of the unit file is so."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

# shellcheck source=test/packaging/expect.sh
source "$(dirname "${BASH_SOURCE[0]}")/expect.sh"
readonly unit=$2 daemon=$3

# analyze TENTHS
# systemd-analyze's verdict on the unit; the status is 0 up to that many tenths of a point.
analyze() {
    systemd-analyze security --offline=true --no-pager --threshold="$1" "$unit"
}

ExposureIsAtMost17() {
    analyze 17 >"$scratch/verdict" || fail "$(tail -n 1 "$scratch/verdict")"
}

NothingIsOpenButWhatTheWorkTakes() {
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
    grep -Fxq "ExecStart=$daemon" "$scratch/pmtud.service" || fail "it does not start the daemon"
    local said
    said=$(systemd-analyze verify --man=no "$scratch/pmtud.service" 2>&1) || fail "$said"
    expect_equal "what systemd says of it" "" "$said"
}

run_case "$1"
