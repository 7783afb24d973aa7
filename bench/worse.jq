# SPDX-License-Identifier: MIT
# The figures of a report that are more than 2 % over the baseline, or missing.
$baseline[0] | to_entries[] | . as $entry
| ($report[0].figures[] | select(.name == $entry.key) | .value) // null
| if . == null then "\($entry.key): not measured"
  elif . > $entry.value * 1.02 then "\($entry.key): \(.), over \($entry.value) by more than 2 %"
  else empty end
