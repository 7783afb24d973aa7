# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_daemon is lab/daemon.sh's, soak_figures is host.sh's
# The soak's accounts: what the rules, host A and the daemon's log count, and what the daemon uses.

declare -A before=() since=()
readonly -a soak_counters=(bcm0.20 answers)

# What the rules' counter counts, in packets.
soak_counter() {
    lab_on switch nft list counter inet pmtud "$1" | sed -nE 's/^\s*packets ([0-9]+) .*/\1/p'
}

soak_counter_since() {
    echo $(($(soak_counter "$1") - before[$1]))
}

# What was lost, of messages and of lines of the log, shows with the next ones: a few packets that
# the daemon answers bring it to light.
soak_bring_to_light() {
    soak_ask settle 1000
    soak_ask plain 2 either
    soak_ask settle 200
    soak_read_figures
}

soak_remember() {
    soak_bring_to_light
    local name
    for name in "${soak_counters[@]}"; do before[$name]=$(soak_counter "$name"); done
    for name in sent answered missing by_daemon log_lines log_lines_lost log_messages_lost \
        log_unanswered log_unlogged; do
        before[$name]=${soak_figures[$name]}
    done
    before[no_room]=$(soak_no_room)
}

# The two packets that bring to light what was lost are not counted among those sent.
soak_compare() {
    soak_bring_to_light
    local name
    for name in "${!before[@]}"; do
        [[ -n ${soak_figures[$name]:-} ]] || continue
        since[$name]=$((${soak_figures[$name]} - ${before[$name]}))
    done
    since[no_room]=$(($(soak_no_room) - before[no_room]))
    ((since[sent] -= 2, since[answered] -= 2))
}

# Nine lines tell of a frame that is answered, unless it is beyond the log's budget.
soak_lines_are_accounted_for() {
    soak_read_figures
    local -ri lines=$((soak_figures[log_lines] - before[log_lines]))
    local -ri lost=$((soak_figures[log_lines_lost] - before[log_lines_lost]))
    local -ri unlogged=$((soak_figures[log_unlogged] - before[log_unlogged]))
    # Host A does not see the answers to others, and the counter has the kernel's answers, too, that
    # were sent after all.
    local -ri seen=$((soak_figures[by_daemon] - before[by_daemon]))
    # What the kernel had no room for was logged, but did not leave.
    local -ri left=$(($(soak_counter_since answers) + $(soak_no_room) - before[no_room]))
    ((9 * (seen - unlogged) <= lines + lost && lines + lost <= 9 * (left - unlogged)))
}

soak_descriptors() {
    find "/proc/$lab_daemon/fd" -mindepth 1 | wc -l
}

soak_read_resources() {
    soak_ask settle 200
    descriptors=$(soak_descriptors)
    memory=$(lab_daemon_memory)
}

# What later phases are compared with.
soak_measure() {
    soak_read_resources
    descriptors_before=$descriptors
    memory_before=$memory
}

soak_check_resources() {
    soak_read_resources
    soak_check_no_more "$1: descriptors" "$descriptors_before" "$descriptors"
    # The C library's heap may end some pages later; a leak would not end there.
    soak_check "$1: anonymous memory in KiB ($memory_before before, $memory now)" \
        test "$memory" -le $((memory_before + 64))
}
