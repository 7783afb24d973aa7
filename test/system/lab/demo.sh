# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # project and scratch are run_case's
# The demo and the lab, started as a user starts them: what they show, and that they clean up.

build=$(realpath -- "$1")
# shellcheck source=lab/await.sh
source "$project/lab/await.sh"

# A run must leave nothing in its working directory or its folder for temporary files.
mkdir "$scratch/cwd" "$scratch/tmp"

show_context() {
    cat "$scratch/out" "$scratch/err"
}

# The files that a run without isolation would touch.
machine_files() {
    stat -c '%n %y' /run/lab /run/netns /run/pmtud.pid /run/pmtud.registered 2>/dev/null || true
}

# A namespace without processes survives only if it is mounted.
mounted_namespaces() {
    grep -c ' nsfs ' /proc/self/mountinfo || (($? == 1))
}

# Every process of the run inherits this variable. A process may end while it is inspected.
readonly mark=PMTUD_TEST_RUN=$scratch
processes() {
    grep -lazxF "$mark" /proc/[0-9]*/environ 2>/dev/null || (($? <= 2))
}

processes_are_gone() {
    [[ -z $(processes) ]]
}

# The shell that started the lab, and unshare.
only_the_outer_processes_are_left() {
    (($(processes | wc -l) <= 2))
}

# start COMMAND [ARGUMENT...]
# Starts it as a terminal does: in a new process group that reacts to Ctrl-C.
start() {
    before=$(machine_files; mounted_namespaces)
    (cd "$scratch/cwd" && TMPDIR=$scratch/tmp exec env --default-signal=INT,QUIT "$mark" \
        setsid "$@" >"$scratch/out" 2>"$scratch/err" </dev/null) &
    run=$!
}

# finish STATUS [lab_within SECONDS]
# Checks that it ends with that status and leaves nothing behind. Killed processes may take that long to
# vanish.
finish() {
    local status=0
    wait "$run" || status=$?
    expect "status $1, not $status" test "$status" -eq "$1"
    expect "all its processes are gone" "${@:2}" processes_are_gone
    expect "no file is left" test -z "$(find "$scratch/cwd" "$scratch/tmp" -mindepth 1)"
    expect "the machine is as before" test "$before" = "$(machine_files; mounted_namespaces)"
}

out_has() {
    grep -Eq -- "$1" "$scratch/out"
}

expect_error() {
    expect "the line '$1'" grep -Fxq -- "$1" "$scratch/err"
}

start_demo() {
    start "$project/script/demo" --build-dir "$build" "$@"
}

# start_demo_with SCRIPT
# Starts the demo with this script instead of the daemon.
start_demo_with() {
    mkdir -p "$scratch/build/bin"
    printf '#!/usr/bin/env bash\n%s\n' "$1" >"$scratch/build/bin/pmtud"
    chmod +x "$scratch/build/bin/pmtud"
    start "$project/script/demo" --build-dir "$scratch/build"
    finish 1
}

# The cases that take longest come first.
DemoNamesTheStepInWhichTheDaemonDoesNotStart() {
    start_demo_with 'echo "its own words" >&2; exec sleep 60'
    expect_error '    its own words'
    expect_error "demo: timed out after 10 s waiting for the daemon's rules"
    expect_error 'demo: step 3 of 5, the cure: could not continue'
}

DemoNamesTheStepInWhichTheDaemonDoesNotAnswer() {
    start_demo_with 'nft "table inet pmtud { chain to-bcm0.20 { meta length <= 1400 accept; }; }"
exec sleep 60'
    expect_error 'demo: step 3 of 5, the cure: did not show: the switch names the MTU'
}

DemoShowsWhatItShouldAndKeepsWhatHostASaw() {
    start_demo --capture "$scratch/demo.pcap"
    finish 0
    expect "a quiet standard error" test ! -s "$scratch/err"
    expect "its last line" out_has '^All 5 steps showed what they should, in [0-9]+ s\.$'
    if out_has 'NOT ok'; then fail "a step did not show what it should"; fi
    expect "the recording in the documents" "$project/script/record-demo" --check "$scratch/out"
    local error
    for error in 'icmp[icmptype] == icmp-unreach' 'icmp6[icmp6type] == icmp6-packettoobig'; do
        expect "$error in the capture" test -n \
            "$(tcpdump -n -t -r "$scratch/demo.pcap" "$error" 2>"$scratch/tcpdump")"
    done
}

ScriptsIgnoreTheSearchPathOfCd() {
    local command
    for command in script/{demo,soak,test,check} lab/lab; do
        expect_match "the first line of $command --help" '^usage: ' \
            "$(cd "$project" && CDPATH=. "$command" --help 2>&1 | sed 1q)"
    done
}

# end_demo SIGNAL TARGET STEP
# Ends the demo in the middle of a step: stops it there, then sends it the signal.
end_demo() {
    start_demo
    expect "the step is there" lab_within 30 out_has "$3"
    kill -STOP -- "-$run"
    expect "several processes" test "$(processes | wc -l)" -ge 4
    kill -"$1" -- "${2/RUN/$run}"
    # The signal may also end a transfer, which the demo would report as a failure. So the shell that
    # ends the lab continues first. After SIGKILL, none of them may be left.
    kill -CONT "$run" || true
    expect "the lab ends" lab_within 30 only_the_outer_processes_are_left
    kill -CONT -- "-$run" || true
}
readonly transfer='after 1 s: 0 of' serving='nft list chain inet pmtud'

DemoCleansUpOnCtrlC() {
    end_demo INT -RUN "$serving"
    finish 130
    expect_error 'demo: interrupted; the lab is removed'
}

DemoCleansUpWhenItIsTerminated() {
    end_demo TERM RUN "$transfer"
    finish 143
}

DemoCleansUpWhenItsTerminalCloses() {
    end_demo HUP -RUN "$transfer"
    finish 129
}

# The machine's process 1 reaps the killed processes, sooner or later.
DemoLeavesNothingBehindWhenItIsKilled() {
    end_demo KILL RUN "$serving"
    finish 137 lab_within 10
}

DemoAndLabNameTheMissingCapabilityAndDoNothing() {
    start setpriv --bounding-set=-sys_admin "$project/script/demo" --build-dir "$build"
    finish 1
    expect_error "demo: CANNOT ISOLATE: CAP_SYS_ADMIN is needed: unshare: unshare failed: Operation not permitted"
    expect "no step" test ! -s "$scratch/out"
    start setpriv --bounding-set=-sys_admin "$project/lab/lab" touch "$scratch/ran"
    finish 1
    expect "the capability's name" grep -q CAP_SYS_ADMIN "$scratch/err"
    expect "the command did not run" test ! -e "$scratch/ran"
}

# expect_new_namespace
# Checks that the run printed its own, new network namespace.
expect_new_namespace() {
    finish 0
    expect "a namespace" out_has '^net:\[[0-9]+\]$'
    expect "a new one" test "$(<"$scratch/out")" != "$(readlink /proc/self/ns/net)"
}

LabIgnoresAVariableSetByItsCaller() {
    start env LAB_OUTSIDE=x "$project/lab/lab" readlink /proc/self/ns/net
    expect_new_namespace
}

LabInsideALabIsASeparateOne() {
    start "$project/lab/lab" bash -c "readlink /proc/self/ns/net >'$scratch/first'
        exec '$project/lab/lab' readlink /proc/self/ns/net"
    expect_new_namespace
    expect "not that of the first" test "$(<"$scratch/out")" != "$(<"$scratch/first")"
}

LabChangesAnMtuAtBothEndsAndReturnsItsCommandsStatus() {
    start "$project/lab/lab" bash -c 'lab mtu 20 1300; ip -n b link show eth0
        ip -n switch link show bcm0.20; exit 7'
    finish 7
    expect "host b" out_has ' eth0@.* mtu 1300 '
    expect "the switch" out_has ' bcm0\.20@.* mtu 1300 '
}
