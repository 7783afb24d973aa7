# SPDX-License-Identifier: MIT
# Prints the report as a table.
def pad(n): tostring | . + (" " * ([n - length, 0] | max));
("figure" | pad(44)) + ("value" | pad(14)) + ("spread" | pad(10)) + "target",
(.figures[]
 | if .missing then (.name | pad(44)) + "not measured: " + .missing
   else (.name | pad(44)) + (.value | pad(14))
        + ((if .spread then "±\(.spread * 1000 | round / 10) %" else "" end) | pad(10))
        + (if .target != null then "\(.target)  \(if .met then "met" else "not met" end)"
           else "" end)
   end)
