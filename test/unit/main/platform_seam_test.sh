#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks that a built daemon takes from the platform exactly the seam's functions and objects.
set -euo pipefail

if [[ ${1:-} == --help || $# -ne 2 ]]; then
    echo "usage: ${0##*/} NM PROGRAM"
    echo "Succeeds if the platform symbols that PROGRAM leaves undefined are exactly the seam's."
    [[ ${1:-} == --help ]] && exit 0
    exit 2
fi

expected=$(sort <<'END'
arpd_icmp6_socket_create
arpd_ipv6_pkt_send
cfg_add_pid
cfg_clear_pid
cfg_init
cfg_vlan_l3_get_dest_vlan
cfg_vlan_l3_get_mtu
cfg_vlan_l3_get_mtu_vlan
debug_process
pktd_queue_entry_data_vlan_based_init
pktd_rx_queue_pool
pktd_rx_wl_pool
pktd_shm_queue_init
pktd_shm_rx_thread_init
pktd_tx_queue_pool
shm_data_entry_post
updateTZ
END
)

# The C and C++ libraries' symbols carry their version; weak ones (w) are the start-up code's.
symbols=$("$1" --dynamic --undefined-only "$2")
found=$(awk '$1 == "U" && $2 !~ /@(GLIBC|GLIBCXX|CXXABI|GCC)_/ { sub(/@.*/, "", $2); print $2 }' \
    <<<"$symbols" | sort)

if ! diff <(echo "$expected") <(echo "$found"); then
    echo "$2: '<' the seam, '>' what the daemon leaves undefined" >&2
    exit 1
fi
