# SPDX-License-Identifier: MIT
# Turns the runs' samples into figures: medians, half the interquartile range, and ratios.
def median: sort | if length % 2 == 1 then .[length / 2 | floor]
                   else (.[length / 2 - 1] + .[length / 2]) / 2 end;
def spread: sort | if (median == 0) then null
                   else (.[length * 3 / 4 | floor] - .[length / 4 | floor]) / 2 / median end;
def rounded: . * 1000 | round / 1000;
(group_by(.name) | map({key: .[0].name, value: map(.value)}) | from_entries) as $v
| def figure(name): {name: name, value: ($v[name] | median | rounded), spread: ($v[name] | spread)};
  # The median of the ratios between samples of neighbouring runs.
  def ratio(name; a; b):
    [$v[a], $v[b]] | transpose | map(.[0] / .[1])
    | {name: name, value: (median | rounded), spread: spread};
  # For figures that vary as much between two starts of one program as between the programs.
  def ratio_of_means(name; a; b):
    {name: name, value: (($v[a] | add / length) / ($v[b] | add / length) | rounded),
     spread: ($v[a] | spread)};
  # For what must hold in every run.
  def least(name): {name: name, value: ($v[name] | min), spread: null};
  (("4", "6") as $f
   | ratio("answer_v\($f)_cpu_over_bare"; "answer_v\($f)_cpu_ns_pmtud"; "answer_v\($f)_cpu_ns_bare"),
     ratio_of_means("answer_v\($f)_median_over_bare"; "answer_v\($f)_median_ns_pmtud";
                    "answer_v\($f)_median_ns_bare"),
     ratio("flood_v\($f)_rate_over_kernel"; "flood_v\($f)_answers_per_second_pmtud";
           "flood_v\($f)_answers_per_second_kernel"),
     ratio("flood_v\($f)_kernel_path_over_pmtud"; "flood_v\($f)_path_ns_kernel";
           "flood_v\($f)_path_ns_pmtud")),
  ($v | keys[] | if test("^honest|share_answered|share_at_rate") then least(.) else figure(.) end)
