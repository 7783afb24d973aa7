# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# A copy of this machine's files to install into. What is written there is in memory and vanishes with
# the mount namespace.

# Where the copy is mounted. The mount belongs to this namespace and is never removed by name.
readonly copy=/mnt/root

# The copy has empty folders /run, /tmp and /etc/systemd, and few devices.
make_copy() {
    mount -t tmpfs copy /mnt
    mkdir /mnt/changes /mnt/work "$copy"
    mount -t overlay copy -o lowerdir=/,upperdir=/mnt/changes,workdir=/mnt/work "$copy"
    local name
    for name in run tmp etc/systemd dev; do mount -t tmpfs copy "$copy/$name"; done
    mkdir "$copy/etc/systemd/system"
    for name in null zero full random urandom; do
        : >"$copy/dev/$name"
        mount --bind "/dev/$name" "$copy/dev/$name"
    done
    mount -t proc proc "$copy/proc"
}
