# SPDX-License-Identifier: MIT
# Draws the demo's output, one string, as an animated terminal in SVG: every two seconds the next
# block of lines, up to a blank one, appears, and the page scrolls. A viewer without animation shows
# the first page.
def rows: 30;
def columns: 100;
def seconds: 2;
def lineHeight: 18;

def escaped: gsub("&"; "&amp;") | gsub("<"; "&lt;") | gsub(">"; "&gt;");
def cut: if length > columns then .[:columns - 1] + "…" else . end;
def style:
  if test("^\\[") then "step"
  elif test("^  (a|b|switch)(\\$|:) ") then "command"
  elif test("^  ok: ") then "ok"
  else "output" end;

# The output's lines with their numbers, grouped by block.
def blocks:
  reduce (rtrimstr("\n") | split("\n") | to_entries[]) as $line ([[]];
    if $line.value | test("^\\s*$")
    then (if .[-1] == [] then . else . + [[]] end)
    else .[-1] += [$line] end)
  | map(select(. != []));

def text:
  "<text class=\"\(.value | style)\" x=\"12\" y=\"\((.key + 1) * lineHeight)\">\(.value | cut | escaped)</text>";

def hidden: ([0, .[-1].key + 2 - rows] | max) * lineHeight;

blocks as $blocks
| ($blocks | length * seconds) as $duration
| [
    "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 860 \(rows * lineHeight + 8)\" role=\"img\" aria-label=\"A run of script/demo\">",
    "<style>",
    "text { font: 14px ui-monospace, \"DejaVu Sans Mono\", monospace; white-space: pre; fill: #c8c8c8 }",
    ".step { fill: #e5c07b; font-weight: bold } .command { fill: #61afef } .ok { fill: #98c379 }",
    "@keyframes hide { from, to { visibility: hidden } }",
    "@keyframes scroll {",
    ($blocks | to_entries[]
      | "  \(.key * 10000 / ($blocks | length) | round / 100)% { transform: translateY(-\(.value | hidden)px) }"),
    "  100% { transform: translateY(-\($blocks[-1] | hidden)px) }",
    "}",
    "#page { animation: scroll \($duration)s step-end forwards }",
    "</style>",
    "<rect width=\"100%\" height=\"100%\" rx=\"6\" fill=\"#1e1e24\"/>",
    "<g id=\"page\">",
    ($blocks | to_entries[]
      | "<g style=\"animation: hide \(.key * seconds)s\">", (.value[] | text), "</g>"),
    "</g>",
    "</svg>"
  ]
| .[]
