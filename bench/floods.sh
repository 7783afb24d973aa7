# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # bin and flood_seconds are those of the script that sources this
# Measures what floods cost, and what others still get while they last.

# Measures the kernel alone, then with the daemon, which answers what the limits leave to it.
measure_flood() {
    local family result
    for family in 4 6; do
        result=$(host_flood a 10 "$family" "$flood_seconds")
        figure "lab_v${family}_answers_per_second_kernel" '.answered / .seconds | round' "$result"
    done
    lab_start_serving "$bin/pmtud"
    for family in 4 6; do
        result=$(with_cost host_flood a 10 "$family" "$flood_seconds")
        figure "lab_v${family}_answers_per_second_pmtud" '.answered / .seconds | round' "$result"
        figure_flood "lab_v${family}_flood" "$result"
    done
}

# figure_flood NAME OBJECT
figure_flood() {
    figure "$1_share_answered" '.answered / .sent' "$2"
    figure "$1_by_pmtud_per_second" '.by_pmtud / .seconds | round' "$2"
    figure "$1_processor_share" '.processor * 1000 | round / 1000' "$2"
    figure "$1_log_lines_per_second" .lines "$2"
}

measure_ten_vlans() {
    local family
    hosts_add 41 50
    for family in 4 6; do
        figure_flood "ten_vlans_v${family}_flood" \
            "$(with_cost hosts_flood 41 50 "$family" "$flood_seconds")"
    done
}

# measure_honest HARDWARE: measures a host in another VLAN while A floods
measure_honest() {
    local family result
    for family in 4 6; do
        host_flood a 10 "$family" "$flood_seconds" >"$LAB_FILES/flood" &
        result=$(host_send h30 30 "$family" one $((20 * flood_seconds)) 50 HOST)
        wait $!
        figure "honest_v${family}_$1_share_answered" '.answered / .sent' "$result"
        figure "honest_v${family}_$1_share_by_pmtud" '.by_pmtud / .sent' "$result"
        figure "honest_v${family}_$1_median_ns" .median_ns "$result"
        figure "honest_v${family}_$1_p99_ns" .p99_ns "$result"
    done
}

measure_floods() {
    lab_build_links 1500 1400
    hosts_add 30 30
    measure_flood
    measure_ten_vlans
    measure_honest plain
    lab_program_hardware
    measure_honest mute
    figure rss_anon_after_floods_kib . "$(lab_daemon_memory)"
}
