# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Starts the daemon on the switch, observes it, and kills it.

# lab_start_daemon PROGRAM [WRAPPER...]
# Starts the program on the switch, through the wrapper if there is one. Its PID is in lab_daemon,
# its output in a separate file.
lab_start_daemon() {
    local -r program=$1
    shift
    lab_daemon_output=$LAB_FILES/daemon.$((lab_daemons += 1))
    ip netns exec switch "$@" "$program" >"$lab_daemon_output" 2>&1 &
    lab_daemon=$!
    disown
}
lab_daemons=0

lab_daemon_table() {
    lab_on switch nft list table inet pmtud 2>"$LAB_FILES/nft"
}

# Whether the daemon's rules are installed.
lab_has_taken_over() {
    lab_daemon_table >"$LAB_FILES/table"
}

# lab_serves VLAN MTU
lab_serves() {
    local table
    table=$(lab_daemon_table) || return 1
    [[ $table =~ chain\ to-bcm0\.$1\ \{[[:space:]]+meta\ length\ \<=\ $2\ accept ]]
}

# If the rules do not appear, prints what the daemon and the platform wrote, which shows why.
lab_start_serving() {
    lab_start_daemon "$@"
    if lab_await 10 "the daemon's rules" lab_has_taken_over; then return; fi
    echo "What the daemon wrote:" >&2
    sed -e 's/\r$//' -e 's/^/    /' "$lab_daemon_output" >&2
    if [[ -s $LAB_FILES/syslog ]]; then
        echo "The system log:" >&2
        lab_syslog | sed 's/^/    /' >&2
    fi
    return 1
}

lab_has_let_go() {
    ! lab_has_taken_over
}

# The daemon's resident anonymous memory, in KiB.
lab_daemon_memory() {
    sed -nE 's/^RssAnon:\s+([0-9]+) kB$/\1/p' "/proc/$lab_daemon/status"
}

lab_kill_daemon() {
    kill -KILL "$lab_daemon"
    lab_await 5 "the end of the daemon" lab_is_gone "$lab_daemon"
}
