# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Runs a script again in its own namespaces, so that it leaves the machine untouched.

# A user's PATH lacks the folders where Debian keeps ip, nft and tcpdump.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

# The lab's own files. They are in memory and vanish with the namespaces.
readonly LAB_FILES=/run/lab

# When process 1 of the PID namespace ends, the kernel kills all others in it; and process 1 is
# killed when the process that started it ends, for whatever reason.
readonly -a lab_isolation=(setpriv --pdeathsig KILL
    unshare --net --mount --pid --fork --kill-child --mount-proc)

lab_namespaces() {
    readlink /proc/self/ns/net /proc/self/ns/mnt /proc/self/ns/pid
}

# Whether this process is in namespaces that were created for the lab: all three differ from those
# of the process that created them.
lab_is_inside() {
    [[ ${LAB_OUTSIDE:-} == net:*mnt:*pid:* ]] || return 1
    local name
    while read -r name; do
        [[ $LAB_OUTSIDE != *"$name"* ]] || return 1
    done < <(lab_namespaces)
}

# Whether this is the script that the namespaces were created for, not one that it started.
lab_is_first_inside() {
    (($$ == 1)) && lab_is_inside
}

lab_complain() {
    echo "${0##*/}: $*" >&2
}

# Reports what is missing, and fails, if the namespaces cannot be created.
lab_require_isolation() {
    local reason
    if ! reason=$("${lab_isolation[@]}" true 2>&1); then
        lab_complain "CANNOT ISOLATE: CAP_SYS_ADMIN is needed: $reason"
        lab_complain "the lab runs only in its own namespaces: run it as root," \
            "or in a container with --cap-add SYS_ADMIN --cap-add NET_ADMIN"
        return 1
    fi
}

# lab_isolate SCRIPT [ARGUMENT...]
# Outside: runs the script in new namespaces, waits until all its processes have ended, and exits
# with its status. Inside: prepares the namespaces and returns.
lab_isolate() {
    if lab_is_first_inside; then
        lab_prepare_inside
        return
    fi
    lab_require_isolation || exit 1
    lab_run_inside "$@"
}

lab_run_inside() {
    local status=0 signal
    # When process 1 is killed, unshare prints a useless message about signal masks. So only the
    # script gets standard error, as descriptor 9.
    (
        # A terminal's signals are for this shell, which then ends everything inside.
        trap '' HUP INT QUIT
        LAB_OUTSIDE=$(lab_namespaces) exec "${lab_isolation[@]}" bash "$@"
    ) <&0 9>&2 2>/dev/null &
    local -r run=$!
    for signal in HUP INT QUIT TERM; do
        # shellcheck disable=SC2064  # the current values are intended
        trap "lab_end_inside $run $signal" "$signal"
    done
    wait "$run" || status=$?
    exit "$status"
}

# Dies of the signal itself, so that the caller sees an interrupted command.
lab_end_inside() {
    trap '' HUP INT QUIT TERM
    local -r run=$1 signal=$2
    local first=
    # If process 1 does not exist yet, its parent is killed instead.
    first=$(pgrep -P "$run") || first=$run
    # It may have ended by now.
    kill -KILL "$first" 2>/dev/null || true
    wait "$run" || lab_complain "interrupted; the lab is removed"
    trap - "$signal"
    kill -"$signal" "$BASHPID"
}

lab_prepare_inside() {
    exec 2>&9 9>&-
    mount -t tmpfs lab /run
    mkdir "$LAB_FILES"
    lab_own_devices
    if ! ip link set lo up; then
        lab_complain "cannot build a network: CAP_NET_ADMIN is missing"
        exit 1
    fi
}

# A /dev without the machine's /dev/log: the daemon logs to the lab's.
lab_own_devices() {
    local -r dev=$LAB_FILES/dev
    mkdir "$dev"
    mount -t tmpfs lab-dev "$dev"
    local node
    for node in null zero full random urandom tty; do
        [[ -e /dev/$node ]] || continue
        : >"$dev/$node"
        mount --bind "/dev/$node" "$dev/$node"
    done
    mkdir "$dev/pts"
    mount --rbind /dev/pts "$dev/pts"
    ln -s pts/ptmx "$dev/ptmx"
    ln -s /proc/self/fd "$dev/fd"
    mount --move "$dev" /dev
}
