# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_daemon is lab/daemon.sh's, soak_figures is host.sh's
# The soak's accounts: the counts of the rules, host A and the daemon's log, and the daemon's
# resources.

declare -A before=() since=()
readonly -a soak_counters=(bcm0.20 answers)

# Prints how many packets the rules' counter has counted.
soak_counter() {
    lab_on switch nft list counter inet pmtud "$1" | sed -nE 's/^\s*packets ([0-9]+) .*/\1/p'
}

soak_counter_since() {
    echo $(($(soak_counter "$1") - before[$1]))
}

# The daemon reports lost messages and lines only with the next ones, so this makes it answer a few
# packets.
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

# The two packets that soak_bring_to_light sends do not count as sent.
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

# The daemon logs nine lines per answered frame, unless the frame exceeds the log's budget.
soak_lines_are_accounted_for() {
    soak_read_figures
    local -ri lines=$((soak_figures[log_lines] - before[log_lines]))
    local -ri lost=$((soak_figures[log_lines_lost] - before[log_lines_lost]))
    local -ri unlogged=$((soak_figures[log_unlogged] - before[log_unlogged]))
    # Host A does not see the answers to others, and the counter includes the kernel's answers that
    # were sent after all.
    local -ri seen=$((soak_figures[by_daemon] - before[by_daemon]))
    # The daemon also logged the answers that the kernel then had no room to send.
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

# Records the state that later phases are compared with.
soak_measure() {
    soak_read_resources
    descriptors_before=$descriptors
    memory_before=$memory
}

soak_check_resources() {
    soak_read_resources
    # The sockets that send the kernel's answers are opened when first needed, and then kept.
    local -ri kept_sockets=3
    soak_check "$1: descriptors ($descriptors_before before, $descriptors now)" \
        test "$descriptors" -le $((descriptors_before + kept_sockets))
    # The C library's heap may grow by some pages; a leak would exceed that.
    soak_check "$1: anonymous memory in KiB ($memory_before before, $memory now)" \
        test "$memory" -le $((memory_before + 64))
}
