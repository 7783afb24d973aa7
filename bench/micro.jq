# SPDX-License-Identifier: MIT
# Turns Google Benchmark's report into figures: medians, the spread between repetitions, and ratios.
([.benchmarks[] | {key: .name, value: .cpu_time}] | from_entries) as $t
| ([.benchmarks[] | select(.aggregate_name == "cv") | {key: .run_name, value: .cpu_time}]
   | from_entries) as $spread
| def median(name): $t[name + "_median"];
  def figure(name; of): {name: name, value: (median(of) * 100 | round / 100), spread: $spread[of]};
  def ratio(name; a; b):
    {name: name, value: (median(a) / median(b) * 1000 | round / 1000),
     spread: ($spread[a] + $spread[b])};
  ratio("reply_v4_over_floor"; "replyV4"; "bareCallsV4"),
  ratio("reply_v6_over_floor"; "replyV6"; "bareCallsV6"),
  ratio("reply_v4_over_text_floor"; "replyV4"; "textCallsV4"),
  ratio("reply_v6_over_text_floor"; "replyV6"; "textCallsV6"),
  figure("reply_v4_ns"; "replyV4"),
  figure("bare_calls_v4_ns"; "bareCallsV4"),
  figure("text_calls_v4_ns"; "textCallsV4"),
  figure("reply_v6_ns"; "replyV6"),
  figure("bare_calls_v6_ns"; "bareCallsV6"),
  figure("text_calls_v6_ns"; "textCallsV6"),
  figure("suppressed_statement_ns"; "suppressedStatement"),
  figure("empty_loop_ns"; "emptyLoop"),
  {name: "suppressed_statement_over_empty_loop_ns",
   value: ((median("suppressedStatement") - median("emptyLoop")) * 100 | round / 100),
   spread: null},
  figure("dump_eth_ns"; "ethernetDump"),
  figure("dump_v4_ns"; "ipv4HeaderDump"),
  figure("dump_v6_ns"; "ipv6PacketDump")
