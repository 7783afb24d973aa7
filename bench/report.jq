# SPDX-License-Identifier: MIT
# All figures of a run, with those derived from others and what each is to reach.
def reach: {
  reply_v4_over_floor: 1.40, reply_v6_over_floor: 1.40, reply_v4_over_text_floor: 1.15,
  suppressed_statement_over_empty_loop_ns: 1,
  lab_v4_rate_over_kernel: 0.5, lab_v6_rate_over_kernel: 0.5,
  lab_v4_lost_at_half_rate: 0, lab_v6_lost_at_half_rate: 0,
  lab_v4_median_over_kernel: 3, lab_v6_median_over_kernel: 3,
  many_vlans_start_ms: 2000, many_vlans_mtu_change_ms: 50, many_vlans_median_over_two: 1.1,
  rss_anon_idle_kib: 4096, rss_anon_after_floods_kib: 4096, rss_anon_after_frames_kib: 4096
};
# Where more is better.
def floors: ["lab_v4_rate_over_kernel", "lab_v6_rate_over_kernel"];
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
    | . + (if reach[.name] != null and .value != null then
             {reach: reach[.name],
              reached: (if (.name | IN(floors[])) then .value >= reach[.name]
                        else .value <= reach[.name] end)}
           else {} end)]}
