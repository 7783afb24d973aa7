# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # packets, seed and the like are script/soak's
# The soak's phases in which the daemon keeps running: comings, traffic, hardware, changes.

step() {
    echo
    echo "== $1"
}

# The packets of the start and of the warm-up: no more than the phases themselves send.
some=20000

start() {
    some=$((packets < 40000 ? packets / 2 : 20000))
    step "the lab, and the daemon"
    lab_build_links 1500 1400
    soak_prepare_network
    soak_start_host "$programs/soak_host" "$seed"
    lab_start_serving "$programs/pmtud"
    soak_in_parts all "$some" either
    soak_no_faults "wrong, missing or superfluous answers to the first packets"
}

come_and_go() {
    local -i i
    for ((i = 0; i < $1; ++i)); do
        echo "link add bcm0.100 type veth peer name peer0"
        echo "link delete bcm0.100"
    done | ip -n switch -batch -
    soak_await_rules
}

# Runs before the large changes, which leave free memory in which a leak could hide.
comings() {
    local -ri together=$((comings < 200 ? comings / 2 : 200))
    step "comings: one interface comes and goes $comings times"
    come_and_go "$together"
    soak_measure
    local -i done=0 now
    while ((done < comings)); do
        now=$((comings - done < together ? comings - done : together))
        come_and_go "$now"
        ((done += now))
        echo "      $done of $comings"
    done
    soak_check_resources "after the comings"
}

# Does everything once before memory is compared.
warm_up() {
    step "warm-up: $((packets / 20)) packets, and the largest changes"
    soak_in_parts all $((packets / 20)) either
    soak_ask changing "$some"
    soak_change_all_at_once
    soak_change_interfaces 200 "$seed"
    soak_await_rules
    soak_remove_interfaces
    soak_ask mtu 1400
    soak_await_rules
    soak_ask all 1000 either
    soak_measure
    soak_no_faults "wrong, missing or superfluous answers, or answers with a wrong MTU"
}

# The daemon must answer whatever the rules withdrew, as long as the queue does not overrun.
check_withdrawn() {
    check_nothing_lost
    soak_check_equal "messages that the rules withdrew, as many as answers that left" \
        "$(soak_counter_since answers)" "$(soak_counter_since bcm0.20)"
}

# If the MTU changed after the kernel refused a packet, the platform sends the kernel's message
# straight to the station, past the counter. Host A checks that every answer arrives.
check_withdrawn_during_changes() {
    check_nothing_lost
    local -ri withdrawn=$(soak_counter_since bcm0.20) answers=$(soak_counter_since answers)
    soak_check "answers that left ($answers) are at most the messages that the rules withdrew ($withdrawn)" \
        test "$answers" -le "$withdrawn"
}

check_nothing_lost() {
    soak_check_equal "messages of the rules lost in the queue" 0 "${since[log_messages_lost]}"
    soak_check "every line was accepted by the system log or is counted as lost" \
        lab_within 5 soak_lines_are_accounted_for
}

traffic() {
    step "traffic: $packets packets to be answered, mixed with malformed ones of every kind"
    soak_remember
    soak_in_parts all "$packets" either
    soak_compare
    soak_no_faults "wrong, missing or superfluous answers"
    soak_check_equal "packets answered, or missing" "$packets" \
        $((since[answered] + since[missing]))
    soak_check "some of them by the daemon (${since[by_daemon]})" test "${since[by_daemon]}" -ge 100
    check_withdrawn
    soak_check_resources "after the traffic"
}

# In this phase, only the daemon answers. The rate is below the limit up to which the rules hand it the
# packets of one interface.
hardware() {
    local -ri count=$((packets / 50 < 3600 ? packets / 50 : 3600))
    step "mute hardware: $count packets to be answered, 60 per second"
    lab_program_hardware
    soak_remember
    soak_ask paced "$count" daemon 60
    soak_compare
    soak_no_faults "wrong, missing or superfluous answers"
    soak_check_equal "packets answered, all by the daemon" "$count" "${since[answered]}"
    check_withdrawn
    soak_check_resources "after the mute hardware"
    lab_remove_hardware
}

changing() {
    step "changes: $changes changes of interfaces, while the MTU of VLAN 20 changes too"
    soak_remember
    soak_change_interfaces "$changes" "$((seed + 1))" &
    local -r change=$!
    local -i sent=0 said
    said=$(lab_now)
    until lab_is_gone "$change"; do
        soak_ask changing 2560
        ((sent += 2560))
        if (($(lab_now) - said > 2000000)); then
            echo "      $sent packets"
            said=$(lab_now)
        fi
    done
    # shellcheck disable=SC2034  # lab/soak/figures.sh shows it
    changes_made=$(<"$LAB_FILES/changes")
    soak_compare
    soak_no_faults "wrong, missing or superfluous answers, or answers with a wrong MTU"
    soak_check_equal "packets answered while interfaces change, or missing" "$sent" \
        $((since[answered] + since[missing]))
    check_withdrawn_during_changes
    soak_check "the rules match the $(soak_vlans_wanted | wc -l) VLANs that exist" \
        lab_within 10 soak_rules_are_true
    soak_remove_interfaces
    soak_ask mtu 1400
    soak_check "the rules match the $(soak_vlans_wanted | wc -l) VLANs that are left" \
        lab_within 10 soak_rules_are_true
    soak_check_resources "after the changes"
}
