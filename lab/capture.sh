# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Captures what host a sees on its link, with tcpdump.

# lab_start_capture FILE
# Captures to FILE, which may be /dev/fd/N.
lab_start_capture() {
    lab_capture_file=$1
    # A pipe, because tcpdump may be confined to files of certain names.
    local pipe
    exec {pipe}> >(exec cat >"$lab_capture_file")
    lab_capture_writer=$!
    # Created here: the wait below may look before the background job has opened it.
    : >"$LAB_FILES/tcpdump"
    ip netns exec a tcpdump -i eth0 -n -U --immediate-mode -B 16384 -w - \
        1>&"$pipe" 2>"$LAB_FILES/tcpdump" &
    lab_capture=$!
    disown
    exec {pipe}>&-
    lab_await 5 "tcpdump to listen" grep -q 'listening on' "$LAB_FILES/tcpdump"
}

# lab_captured [FILTER OR OPTION...]
# Prints what has been captured, one line per packet, without the time.
lab_captured() {
    tcpdump -n -t -r "$lab_capture_file" "$@" 2>"$LAB_FILES/tcpdump.read"
}

# On SIGTERM, tcpdump writes out its buffer and ends.
lab_stop_capture() {
    kill -TERM "$lab_capture"
    lab_await 5 "tcpdump to end" lab_is_gone "$lab_capture"
    lab_await 5 "the capture to be written" lab_is_gone "$lab_capture_writer"
}
