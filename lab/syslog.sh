# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The lab's system log: a file that receives what is written to /dev/log.

lab_start_syslog() {
    : >"$LAB_FILES/syslog"
    socat -u UNIX-RECV:/dev/log "OPEN:$LAB_FILES/syslog,append" &
    disown
    lab_await 5 "the system log" test -S /dev/log
}

# Prints one line per datagram, without the time and the PID, which vary.
lab_syslog() {
    sed -E 's/<[0-9]+>/\n/g' "$LAB_FILES/syslog" | sed -nE 's/^.* pmtud\[[0-9]+\]: //p'
}

lab_syslog_has() {
    [[ $(lab_syslog) == *"$1"* ]]
}
