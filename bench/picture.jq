# SPDX-License-Identifier: MIT
# Draws one comparison as horizontal bars, in the unit that the title names.
def pictures: {
  replies: {title: "One reply, nanoseconds (median)", bars: [
    ["IPv4: bare system calls", "bare_calls_v4_ns"],
    ["IPv4: calls and lines by snprintf", "text_calls_v4_ns"],
    ["IPv4: pmtud", "reply_v4_ns"],
    ["IPv6: bare system calls", "bare_calls_v6_ns"],
    ["IPv6: calls and lines by snprintf", "text_calls_v6_ns"],
    ["IPv6: pmtud", "reply_v6_ns"]]},
  lab: {title: "Time from packet to answer in the lab, nanoseconds (median)", bars: [
    ["IPv4: kernel", "lab_v4_median_ns_kernel"],
    ["IPv4: pmtud", "lab_v4_median_ns_pmtud"],
    ["IPv6: kernel", "lab_v6_median_ns_kernel"],
    ["IPv6: pmtud", "lab_v6_median_ns_pmtud"]]}
};
pictures[$picture] as $p
| ([.figures[] | select(.value != null) | {key: .name, value: .value}] | from_entries) as $v
| [$p.bars[] | {text: .[0], value: $v[.[1]]}] as $bars
| ([$bars[].value // 0] | max | if . > 0 then . else 1 end) as $most
| "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"720\" height=\"\($bars | length * 30 + 50)\" font-family=\"sans-serif\" font-size=\"13\">",
  "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>",
  "<text x=\"10\" y=\"24\" font-size=\"15\">\($p.title)</text>",
  ($bars | to_entries[]
   | (.key * 30 + 40) as $y
   | "<text x=\"10\" y=\"\($y + 16)\">\(.value.text)</text>",
     (if .value.value then
        "<rect x=\"240\" y=\"\($y)\" width=\"\(.value.value / $most * 380 | round)\" height=\"22\" fill=\"\(if .value.text | endswith("pmtud") then "#2a6f97" else "#a9b4bd" end)\"/>",
        "<text x=\"\(246 + (.value.value / $most * 380 | round))\" y=\"\($y + 16)\">\(.value.value | round)</text>"
      else "<text x=\"240\" y=\"\($y + 16)\">not measured</text>" end)),
  "</svg>"
