# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Runs a script again in namespaces of its own, so that nothing of it reaches the machine or stays.

# A user's PATH leaves out where Debian keeps ip, nft and tcpdump.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

# The lab's own files; they are in memory and go with the namespaces.
readonly LAB_FILES=/run/lab

# The process namespace's process 1 takes all others in it along when it ends; and it ends with
# the process that started this, however that ends.
readonly -a lab_isolation=(setpriv --pdeathsig KILL
    unshare --net --mount --pid --fork --kill-child --mount-proc)

lab_namespaces() {
    readlink /proc/self/ns/net /proc/self/ns/mnt /proc/self/ns/pid
}

# Whether this process is in namespaces that were made for the lab: all three differ from
# those of the process that made them.
lab_is_inside() {
    [[ ${LAB_OUTSIDE:-} == net:*mnt:*pid:* ]] || return 1
    local name
    while read -r name; do
        [[ $LAB_OUTSIDE != *"$name"* ]] || return 1
    done < <(lab_namespaces)
}

# Whether this is the script that the namespaces were made for, and not a later one in them.
lab_is_first_inside() {
    (($$ == 1)) && lab_is_inside
}

lab_complain() {
    echo "${0##*/}: $*" >&2
}

# Says what is missing, and fails, where the namespaces cannot be made.
lab_require_isolation() {
    local reason
    if ! reason=$("${lab_isolation[@]}" true 2>&1); then
        lab_complain "CANNOT ISOLATE: it takes CAP_SYS_ADMIN: $reason"
        lab_complain "the lab runs in namespaces of its own or not at all: run it as root," \
            "or in a container with --cap-add SYS_ADMIN --cap-add NET_ADMIN"
        return 1
    fi
}

# lab_isolate SCRIPT [ARGUMENT...]
# Outside: runs the script in new namespaces, waits until every process of it is gone, and
# exits with its status.  Inside: prepares the namespaces and returns.
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
    # When process 1 is killed, unshare says something about signal masks, which is no news: the
    # script gets standard error as descriptor 9.
    (
        # A terminal's signals are this shell's, which then ends what is inside.
        trap '' HUP INT QUIT
        LAB_OUTSIDE=$(lab_namespaces) exec "${lab_isolation[@]}" bash "$@"
    ) <&0 9>&2 2>/dev/null &
    local -r run=$!
    for signal in HUP INT QUIT TERM; do
        # shellcheck disable=SC2064  # the values of now are meant
        trap "lab_end_inside $run $signal" "$signal"
    done
    wait "$run" || status=$?
    exit "$status"
}

# Ends by the signal itself, so that a caller sees an interrupted command.
lab_end_inside() {
    trap '' HUP INT QUIT TERM
    local -r run=$1 signal=$2
    local first=
    # Where there is no process 1 yet, its parent is ended in its place.
    first=$(pgrep -P "$run") || first=$run
    lab_is_gone "$run" || kill -KILL "$first"
    wait "$run" || lab_complain "interrupted; everything is taken away"
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

# A /dev without the machine's /dev/log: what the daemon logs is the lab's.
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
