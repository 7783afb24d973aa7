# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# A TCP transfer from host a to host b, with socat at both ends.

readonly lab_sent=$LAB_FILES/sent
readonly lab_received=$LAB_FILES/received

lab_listens() {
    [[ $(lab_on b ss -Hltn "sport = $1") == LISTEN* ]]
}

# lab_start_transfer FAMILY BYTES
# The PIDs are in lab_receiver and lab_sender.
lab_start_transfer() {
    local -r family=$1 port=$((5000 + (lab_transfers += 1)))
    head -c "$2" /dev/urandom >"$lab_sent"
    : >"$lab_received"
    ip netns exec b socat -u "TCP$family-LISTEN:$port" "OPEN:$lab_received,append" &
    lab_receiver=$!
    disown
    lab_await 5 "host b to listen" lab_listens "$port"
    local destination
    destination=$(lab_address "$family" 20 2)
    if [[ $family == 6 ]]; then destination="[$destination]"; fi
    ip netns exec a socat -u "OPEN:$lab_sent" "TCP$family:$destination:$port" &
    lab_sender=$!
    disown
}
lab_transfers=0

lab_bytes_received() {
    stat -c %s "$lab_received"
}

lab_transfer_is_connected() {
    [[ -n $(lab_on a ss -Htn state established) ]]
}

lab_transfer_is_over() {
    lab_is_gone "$lab_receiver" && lab_is_gone "$lab_sender"
}

lab_stop_transfer() {
    local process
    for process in "$lab_receiver" "$lab_sender"; do
        lab_is_gone "$process" || kill -KILL "$process"
    done
    lab_await 5 "the end of the transfer" lab_transfer_is_over
}
