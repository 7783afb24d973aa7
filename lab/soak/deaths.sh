# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # packets, seed and the like are script/soak's
# The soak's phases in which the daemon is stopped, dies or starts: floods, kills and starts.

# How many messages the kernel dropped because the log group's socket was full.
queue_drops() {
    # shellcheck disable=SC2016  # the dollars are awk's
    lab_on switch awk '
        FILENAME ~ /nfnetlink_log$/ { if ($1 == 89) group = $2; next }
        $3 == group { sum += $9 }
        END { print sum + 0 }' /proc/net/netfilter/nfnetlink_log /proc/net/netlink
}

# The rules limit how many packets per second they hand to the daemon for each interface. More interfaces,
# at host A and at the switch, fill the queue sooner. At the switch, all have the MAC address of bcm0.10,
# because A's packets are addressed to it.
readonly -a more_vlans=({11..18})

add_interfaces() {
    local vlan mac
    mac=$(lab_on switch cat /sys/class/net/bcm0.10/address)
    for vlan in "${more_vlans[@]}"; do
        ip link add "eth$vlan" netns a type veth peer name "bcm0.$vlan" address "$mac" netns switch
        ip -n a link set "eth$vlan" up
        ip -n switch link set "bcm0.$vlan" up
    done
    soak_await_rules
}

remove_interfaces() {
    local vlan
    for vlan in "${more_vlans[@]}"; do ip -n a link delete "eth$vlan"; done
    soak_await_rules
}

# Sends no more per second than the rules copy: host A remembers only its last 32,768 packets, and must
# still remember each one when its answer finally arrives.
flood_until_over() {
    soak_ask forget 576 either 2500
    (($(queue_drops) > drops_before))
}

# overrun 0|1
# Stops the daemon, so that the queue overruns on any machine. With 0, the system log is stuck too, and
# accepts no line about the losses.
overrun() {
    drops_before=$(queue_drops)
    kill -STOP "$lab_daemon"
    soak_ask log "$1"
    soak_ask spread 1
    lab_await 120 "the receive queue to overrun" flood_until_over
    soak_ask spread 0
    soak_ask forget 1024 either
    kill -CONT "$lab_daemon"
    soak_ask settle 300
    soak_ask forget 8192 either
    soak_ask settle 300
    soak_ask log 1
}

flood() {
    step "floods: more than the receive queue holds, while the daemon is stopped"
    add_interfaces
    soak_remember
    local -i round
    for ((round = 0; round < floods; ++round)); do
        overrun $((round != 1))
        echo "      $((round + 1)) of $floods"
    done
    soak_compare
    soak_no_faults "wrong or superfluous answers"
    local -ri withdrawn=$(soak_counter_since bcm0.20) left=$(soak_counter_since answers)
    local -ri gone=$((withdrawn - left - since[log_unanswered]))
    messages_lost=${since[log_messages_lost]}
    soak_check_equal "packets that nobody answered: withdrawn without an answer, or no room" \
        $((withdrawn - left + since[no_room])) $((since[sent] - since[answered]))
    soak_check "of the $withdrawn withdrawn, $left were answered and ${since[log_unanswered]} reported: the other $gone are among the $messages_lost messages reported lost" \
        test "$gone" -ge 0 -a "$gone" -le "$messages_lost"
    soak_check "the queue overran, and the daemon reports how much was lost" \
        test "$messages_lost" -gt 0
    remove_interfaces
    soak_check_resources "after the floods"
}

no_tables() {
    [[ -z $(lab_on switch nft list tables) ]]
}

# sleep_randomly MILLISECONDS
# Sleeps less than that.
sleep_randomly() {
    sleep "0.$(printf %03d $((RANDOM % $1)))"
}

# Records whether a rule is left. From the next packet on, the kernel must answer.
after_kill() {
    lab_await 10 "the end of the daemon" lab_is_gone "$lab_daemon"
    ((killed += 1))
    no_tables || ((left_behind += 1))
    soak_ask plain 16 kernel
    ((kernels += 16))
}

# Kills the daemon while it serves and packets are in flight, or while it starts.
kill_at_random() {
    if ((RANDOM % 3 == 0)); then
        lab_start_daemon "$programs/pmtud"
        sleep_randomly 40
        kill -KILL "$lab_daemon"
        after_kill
        return
    fi
    lab_start_serving "$programs/pmtud"
    soak_ask plain 16 daemon
    soak_tell forget 2048 either
    sleep_randomly 20
    kill -KILL "$lab_daemon"
    soak_hear
    after_kill
}

killing() {
    step "kills: SIGKILL $kills times, while the daemon starts or while packets are in flight"
    killed=0 left_behind=0 kernels=0
    RANDOM=$seed
    local -i said
    kill -KILL "$lab_daemon"
    after_kill
    said=$(lab_now)
    while ((killed < kills)); do
        kill_at_random
        if (($(lab_now) - said > 2000000)); then
            echo "      $killed of $kills"
            said=$(lab_now)
        fi
    done
    soak_ask settle 200
    soak_in_parts all $((packets / 10)) kernel
    ((kernels += packets / 10))
    soak_check_equal "kills that left a rule behind" 0 "$left_behind"
    soak_no_faults "wrong, missing or superfluous answers, the kernel's $kernels included"
}

churn() {
    local -i round
    for ((round = 0; ; ++round)); do soak_change_interfaces 200 $((seed + round)); done
}

# Checks that the daemon starts to serve, and answers, while the list of interfaces keeps changing.
start_in_churn() {
    lab_start_daemon "$programs/pmtud"
    if lab_within 10 lab_has_taken_over; then
        soak_ask plain 2 daemon
    else
        ((failed_starts += 1))
    fi
    lab_kill_daemon
}

starting() {
    step "starts: $starts times while interfaces come, go and change their names"
    failed_starts=0
    churn &
    local -r churn=$!
    local -i i
    for ((i = 0; i < starts; ++i)); do start_in_churn; done
    kill "$churn"
    wait "$churn" 2>/dev/null || (($? > 128))
    soak_check_equal "starts that did not lead to serving" 0 "$failed_starts"
    soak_no_faults "wrong, missing or superfluous answers after them"
    lab_start_serving "$programs/pmtud"
    soak_check "the rules match the $(soak_vlans_wanted | wc -l) VLANs that exist" \
        lab_within 10 soak_rules_are_true
    lab_kill_daemon
}

# Two routers, one with the daemon and one without, receive the same packets.
walk() {
    if [[ ! -x $programs/twin_walk ]]; then return; fi
    step "walk: $walk packets to two routers, one of them with the daemon"
    soak_check "both routers did the same, except for who answers" \
        "$programs/twin_walk" --seed "$seed" --packets "$walk" --daemon "$programs/pmtud"
}
