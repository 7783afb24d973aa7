# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# What the daemon is for: how the switch behaves without it.

LargePacketVanishesWithoutTheDaemon() {
    lab_build
    start_capture
    expect_match "ping" ' 0 received, 100% packet loss' "$(ping_size 1500 -W 1)"
    expect_no_errors
}

TcpTransferStallsWithoutTheDaemon() {
    lab_build
    start_capture
    lab_start_transfer "$family" 100000
    expect "the connection is made" lab_within 5 lab_transfer_is_connected
    if lab_within 2 lab_transfer_is_over; then fail "the transfer ended"; fi
    expect_equal "bytes received" 0 "$(lab_bytes_received)"
    lab_stop_transfer
    expect_no_errors
}

SmallPacketPassesWithoutTheDaemon() {
    lab_build
    expect_passes 1400
}
