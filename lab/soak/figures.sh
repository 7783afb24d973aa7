# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # the soak's other scripts set them
# Prints how much the soak has done.

show_figures() {
    step "figures"
    soak_ask kinds
    printf '  %-4s %-36s %10s %10s  %s\n' IP packet sent answered "to be answered"
    tr ';' '\n' <<<"$soak_reply" | while IFS='|' read -r family name number good outcome; do
        [[ -n $family ]] || continue
        printf '  %-4s %-36s %10d %10d  %s\n' "${family/#0/-}" "$name" "$number" "$good" "$outcome"
    done
    soak_read_figures
    local name
    {
        echo "packets sent|$((soak_figures[sent] + soak_figures[kernels] + soak_figures[elsewhere] + soak_figures[never]))"
        echo "of them to be answered|${soak_figures[sent]}"
        echo "answered|${soak_figures[answered]}"
        echo "missing: the kernel had no room to answer|${soak_figures[missing]}"
        echo "answered by the daemon|${soak_figures[by_daemon]}"
        echo "log group messages lost in the floods|$messages_lost"
        echo "answered by the kernel without a daemon|$kernels"
        echo "kills|$killed"
        echo "times the interface came and went|$comings"
        echo "changes of interfaces|$changes_made"
        echo "changes of the MTU of VLAN 20|${soak_figures[mtu_changes]}"
        echo "answers whose checksum lacks a carry|${soak_figures[carries_dropped]}"
        echo "answers that host A had no room for|${soak_figures[missed]}"
        echo "lines of the system log|${soak_figures[log_lines]}"
        echo "lines of the system log lost|${soak_figures[log_lines_lost]}"
        echo "descriptors before, after|$descriptors_before, $descriptors"
        echo "anonymous memory before, after (KiB)|$memory_before, $memory"
    } | while IFS='|' read -r name number; do
        printf '  %-44s %s\n' "$name" "$number"
    done
    sed -n 's/^the daemon reports/  &/p' "$LAB_FILES/host"
}
