# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # lab_daemon is lab/daemon.sh's
# Adds, removes and renames interfaces of the switch, and changes their MTUs, at random.

readonly -a soak_mtus=(300 575 576 1000 1280 1400 1500 9000 16383 16384 20000)

# Prints one ip command for one of the VLANs 100 to 131, or for an interface wireN that is not a
# VLAN yet.
soak_random_change() {
    local -ri vlan=$((100 + RANDOM % 32)) other=$((100 + RANDOM % 32))
    local -r mtu=${soak_mtus[RANDOM % ${#soak_mtus[@]}]}
    case $((RANDOM % 8)) in
        0 | 1) echo "link add bcm0.$vlan mtu $mtu type veth peer name peer$((soak_peers += 1))" ;;
        2) echo "link delete bcm0.$vlan" ;;
        3) echo "link set bcm0.$vlan name bcm0.$other" ;;
        4) echo "link set bcm0.$vlan name wire$other" ;;
        5) echo "link set wire$vlan name bcm0.$vlan" ;;
        *) echo "link set bcm0.$vlan mtu $mtu" ;;
    esac
}
soak_peers=0

# soak_change_interfaces COUNT SEED
# Skips changes that are impossible because an interface does not exist. The file "changes" holds
# the number of changes made.
soak_change_interfaces() {
    local -i i
    RANDOM=$2
    for ((i = 0; i < $1; ++i)); do soak_random_change; done >"$LAB_FILES/batch"
    ip -n switch -force -batch "$LAB_FILES/batch" 2>"$LAB_FILES/refused" ||
        grep -q '^Command failed' "$LAB_FILES/refused"
    echo $(($1 - $(grep -c '^Command failed' "$LAB_FILES/refused"))) >"$LAB_FILES/changes"
}

soak_await_rules() {
    lab_await 10 "the rules to follow the interfaces" soak_rules_are_true
}

# soak_meanwhile COMMAND [ARGUMENT...]
# Stops the daemon during the command, so that it finds all changes at once.
soak_meanwhile() {
    kill -STOP "$lab_daemon"
    "$@"
    kill -CONT "$lab_daemon"
    soak_await_rules
}

soak_add_all() {
    local -i vlan
    for ((vlan = 100; vlan < 132; ++vlan)); do
        echo "link add bcm0.$vlan mtu 1400 type veth peer name peer$((soak_peers += 1))"
    done | ip -n switch -batch -
}

soak_set_all() {
    local -i vlan
    for ((vlan = 100; vlan < 132; ++vlan)); do
        echo "link set bcm0.$vlan mtu $1"
    done | ip -n switch -batch -
}

# Makes the largest possible changes to the rules, so that the daemon has already allocated what they
# need.
soak_change_all_at_once() {
    local -i round
    for ((round = 0; round < 3; ++round)); do
        soak_meanwhile soak_add_all
        soak_meanwhile soak_set_all 500
        soak_meanwhile soak_set_all 1500
        soak_meanwhile soak_set_all 1300
        soak_meanwhile soak_remove_interfaces
    done
}

# Prints the VLANs that should be served and their MTUs, sorted by name.
soak_vlans_wanted() {
    local name mtu
    while read -r name mtu; do
        if ((mtu >= 576 && mtu <= 16383)); then echo "$name $mtu"; fi
    done < <(ip -n switch -o link show |
        sed -nE 's/^[0-9]+: (bcm0\.[0-9]+)[@:].* mtu ([0-9]+) .*/\1 \2/p') | sort
}

soak_vlans_served() {
    lab_daemon_table | tr -d '\n' |
        grep -oE 'chain to-bcm0\.[0-9]+ \{[[:space:]]+meta length <= [0-9]+ accept' |
        sed -E 's/^chain to-(bcm0\.[0-9]+) .* ([0-9]+) accept$/\1 \2/' | sort
}

soak_rules_are_true() {
    [[ $(soak_vlans_served) == "$(soak_vlans_wanted)" ]]
}

soak_remove_interfaces() {
    local name
    while read -r name; do
        echo "link delete $name"
    done < <(ip -n switch -o link show type veth |
        sed -nE 's/^[0-9]+: (bcm0\.1[0-9]{2}|wire[0-9]+)[@:].*/\1/p') |
        ip -n switch -force -batch - 2>"$LAB_FILES/refused" || [[ ! -s $LAB_FILES/refused ]]
}
