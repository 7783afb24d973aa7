# SPDX-License-Identifier: MIT
# Prints all figures of a run, including derived ones, with the target of each that has one.
def target: {
  reply_v4_over_floor: 1.40, reply_v6_over_floor: 1.40, reply_v4_over_text_floor: 1.10,
  suppressed_statement_over_empty_loop_ns: 1,
  lab_v4_rate_over_kernel: 0.5, lab_v6_rate_over_kernel: 0.5,
  lab_v4_lost_within_limits: 0, lab_v6_lost_within_limits: 0,
  lab_v4_flood_share_answered: 1, lab_v6_flood_share_answered: 1,
  lab_v4_flood_processor_share: 0.25, lab_v6_flood_processor_share: 0.25,
  ten_vlans_v4_flood_processor_share: 0.25, ten_vlans_v6_flood_processor_share: 0.25,
  honest_v4_plain_share_answered: 1, honest_v6_plain_share_answered: 1,
  honest_v4_mute_share_answered: 1, honest_v6_mute_share_answered: 1,
  throughput_v4_9000_to_1500_over_kernel: 0.95, throughput_v6_9000_to_1500_over_kernel: 0.95,
  throughput_v4_1500_to_1400_over_kernel: 0.95, throughput_v6_1500_to_1400_over_kernel: 0.95,
  lab_v4_median_over_kernel: 3, lab_v6_median_over_kernel: 3,
  many_vlans_start_ms: 2000, many_vlans_mtu_change_ms: 50, many_vlans_median_over_two: 1.1,
  rss_anon_idle_kib: 4096, rss_anon_after_floods_kib: 4096, rss_anon_after_frames_kib: 4096,
  answer_v4_cpu_over_bare: 1.7, answer_v6_cpu_over_bare: 1.9,
  answer_v4_median_over_bare: 1.8, answer_v6_median_over_bare: 1.8,
  answer_v4_share_at_rate_pmtud: 1, answer_v6_share_at_rate_pmtud: 1,
  flood_v4_rate_over_kernel: 0.8, flood_v6_rate_over_kernel: 0.8,
  flood_v4_kernel_path_over_pmtud: 0.8, flood_v6_kernel_path_over_pmtud: 0.8,
  flood_v4_share_answered_pmtud: 0.999, flood_v6_share_answered_pmtud: 0.999,
  flood_v4_duplicates_pmtud: 0, flood_v6_duplicates_pmtud: 0,
  flood_v4_core_share: 0.25, flood_v6_core_share: 0.25,
  honest_v4_plain_1: 1, honest_v6_plain_1: 1, honest_v4_plain_10: 1, honest_v6_plain_10: 1,
  honest_v4_mute_1: 0.99, honest_v6_mute_1: 0.99, honest_v4_mute_10: 0.99, honest_v6_mute_10: 0.99,
  idle_wakeups_per_second_receiving: 0
};
# Figures for which more is better.
def is_floor: test("_rate_over_kernel$|_kernel_path_over_pmtud$|_share_|^honest_|^throughput_");
(map(select(.value != null) | {key: .name, value: .value}) | from_entries) as $v
| def ratio(name; a; b):
    if $v[a] and $v[b] then [{name: name, value: ($v[a] / $v[b] * 1000 | round / 1000)}] else [] end;
  def derived:
    ratio("lab_v4_rate_over_kernel"; "lab_v4_answers_per_second_pmtud";
          "lab_v4_answers_per_second_kernel")
    + ratio("lab_v6_rate_over_kernel"; "lab_v6_answers_per_second_pmtud";
            "lab_v6_answers_per_second_kernel")
    + ratio("lab_v4_median_over_kernel"; "lab_v4_median_ns_pmtud"; "lab_v4_median_ns_kernel")
    + ratio("lab_v6_median_over_kernel"; "lab_v6_median_ns_pmtud"; "lab_v6_median_ns_kernel")
    + ratio("many_vlans_median_over_two"; "many_vlans_v4_median_ns"; "lab_v4_median_ns_pmtud");
  {figures: [(.[], derived[])
    | . + (if target[.name] != null and .value != null then
             {target: target[.name],
              met: (if (.name | is_floor) then .value >= target[.name]
                    else .value <= target[.name] end)}
           else {} end)]}
