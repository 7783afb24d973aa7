# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # copy is copy.sh's
# Boots systemd on the lab's switch, in a copy of this machine's files, up to the service.
#
# It is process 1 of a new PID namespace, in a new control group below the test's, and sees none of
# the kernel's settings that it could change for the whole machine.

# boot_install BUILD
# Installs the build into the copy, and leaves systemd only the units that the service needs.
boot_install() {
    local -r units=$copy/usr/lib/systemd/system
    make_copy
    DESTDIR=$copy cmake --install "$1" --prefix /usr >"$LAB_FILES/install"
    mkdir "$LAB_FILES/units"
    cp -p "$units"/{pmtud.service,{basic,sysinit,shutdown}.target} \
        "$units"/systemd-journald{.service,.socket,-dev-log.socket} "$LAB_FILES/units"
    mount --bind "$LAB_FILES/units" "$units"
    mount -t tmpfs generators "$copy/usr/lib/systemd/system-generators"
    mkdir "$units/sysinit.target.wants"
    ln -s ../systemd-journald{.service,.socket,-dev-log.socket} "$units/sysinit.target.wants/"
}

# The folder of this process's control group (cgroup2).
boot_own_cgroup() {
    local mounted
    mounted=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET) ||
        fail "systemd needs cgroup2, which is not mounted"
    echo "${mounted%/}$(sed -n 's/^0:://p' /proc/self/cgroup)"
}

# Runs in the new namespaces: mounts the file systems that systemd expects, and then runs systemd.
boot_process_1() {
    # The service gets its devices from these.
    mkdir "$copy/dev/pts" "$copy/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$copy/dev/pts"
    mount -t tmpfs shm "$copy/dev/shm"
    ln -s pts/ptmx "$copy/dev/ptmx"
    mount -t proc proc "$copy/proc"
    mount --bind "$copy/proc/sys" "$copy/proc/sys"
    mount -o remount,bind,ro "$copy/proc/sys"
    mount -t sysfs -o ro sysfs "$copy/sys"
    mount -t cgroup2 cgroup2 "$copy/sys/fs/cgroup"
    # Keeps the mounts inside this namespace.
    mount --make-rprivate /
    cd "$copy" || return
    pivot_root . mnt
    exec chroot . env -i container=lab PATH=/usr/sbin:/usr/bin sh -c \
        'umount -l /mnt && exec /lib/systemd/systemd --unit=pmtud.service --log-target=console'
}

# boot_service
# Boots, and waits until the service's process exists. Its PID is then in lab_daemon.
boot_service() {
    boot_cgroup=$(mktemp -d "$(boot_own_cgroup)/pmtud-lab-XXXXXX")
    trap boot_end EXIT
    lab_daemon_output=$LAB_FILES/systemd
    (
        echo "$BASHPID" >"$boot_cgroup/cgroup.procs"
        # Drops the capabilities that reach the machine: modules, clock, devices, log.
        exec ip netns exec switch setpriv \
            --bounding-set=-sys_module,-sys_boot,-sys_time,-sys_rawio,-mknod,-syslog \
            unshare --mount --pid --ipc --uts --cgroup --fork --kill-child \
            bash -euo pipefail -c "copy=$copy; $(declare -f boot_process_1); boot_process_1"
    ) >"$lab_daemon_output" 2>&1 </dev/null &
    boot_job=$!
    disown
    boot_await_process ""
}

# boot_await_process OLD_PID
boot_await_process() {
    expect "the service's process starts" lab_within 20 boot_has_process_after "$1"
    # shellcheck disable=SC2034  # the cases read it
    lab_daemon=$(pgrep -x pmtud)
}

boot_has_process_after() {
    local now
    now=$(pgrep -x pmtud) && [[ $now != "$1" ]]
}

# The PID of systemd: the child of the process that created its namespaces.
boot_init() {
    pgrep -x systemd --newest --parent "$(pgrep -x unshare --newest)"
}

boot_cgroup_is_empty() {
    [[ $(<"$boot_cgroup/cgroup.events") == *"populated 0"* ]]
}

boot_end() {
    lab_is_gone "$boot_job" || kill -KILL "$boot_job"
    lab_await 10 "the end of systemd" boot_cgroup_is_empty
    find "$boot_cgroup" -depth -type d -exec rmdir {} +
}

# The service's lines in the journal, without the times.
boot_journal() {
    journalctl --directory "$copy/run/log/journal" --no-pager --output=cat --identifier=pmtud |
        sed -E -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9] //' -e 's/\r$//'
}

boot_journal_has() {
    [[ $(boot_journal) == *"$1"* ]]
}
