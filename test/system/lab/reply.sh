# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2154  # family and daemon are the runner's
# The reply on the wire, as host a captures it.

# packet FILTER [OPTION...]
# The packet's bytes from its IP header, in hexadecimal.
packet() {
    lab_captured -x "$@" | sed -n 's/^\t0x[0-9a-f]*:  //p' | tr -d ' \n'
}

provoke_reply() {
    lab_build
    lab_start_serving "$daemon"
    start_capture
    ping_size 1500 >"$LAB_FILES/ping"
    await_errors
}

ReplyComesFromTheAddressOfTheIngressVlan() {
    provoke_reply
    expect_equal "the reply" "$(by_family \
        'IP 10.0.10.1 > 10.0.10.2: ICMP 10.0.20.2 unreachable - need to frag (mtu 1400), length 68' \
        'IP6 2001:db8:10::1 > 2001:db8:10::2: ICMP6, packet too big, mtu 1400, length 1400')" \
        "$(errors)"
}

ReplyHasAHopLimitOf64() {
    provoke_reply
    local reply
    reply=$(packet "$(by_family 'icmp[icmptype] == 3' 'icmp6[icmp6type] == 2')")
    # Time to live: byte 8 of the IPv4 header; hop limit: byte 7 of the IPv6 header.
    expect_equal "hop limit" 40 "${reply:$(by_family 16 14):2}"
}

ReplyOfIpv4Is68BytesWithTypeCodeAndMtu() { # IPv4 only
    provoke_reply
    local reply
    reply=$(packet 'icmp[icmptype] == 3')
    expect_equal "IPv4 total length" 0058 "${reply:4:4}"
    expect_equal "type and code" 0304 "${reply:40:4}"
    expect_equal "unused, next-hop MTU" 00000578 "${reply:48:8}"
    expect_equal "whole length" $((2 * (20 + 68))) ${#reply}
}

ReplyOfIpv6Is1400BytesWithTypeCodeAndMtu() { # IPv6 only
    provoke_reply
    local reply
    reply=$(packet 'icmp6[icmp6type] == 2')
    expect_equal "IPv6 payload length" 0578 "${reply:8:4}"
    expect_equal "type and code" 0200 "${reply:80:4}"
    expect_equal "MTU" 00000578 "${reply:88:8}"
    expect_equal "whole length" $((2 * (40 + 1400))) ${#reply}
}

ReplyQuotesThePacketAsItWasSent() {
    provoke_reply
    local sent reply
    sent=$(packet "$(by_family 'icmp[icmptype] == icmp-echo' 'icmp6[icmp6type] == icmp6-echo')")
    reply=$(packet "$(by_family 'icmp[icmptype] == 3' 'icmp6[icmp6type] == 2')")
    expect_equal "the packet's length" $((2 * 1500)) ${#sent}
    # IPv4: the first 60 bytes, behind 20 and 8 bytes of headers.  IPv6: as much as 1400 bytes
    # hold, behind 40 and 8.
    local -r start=$(by_family $((2 * 28)) $((2 * 48))) length=$(by_family 120 $((2 * 1392)))
    expect_equal "the quote" "${sent:0:length}" "${reply:start}"
}

ReplyHasARightChecksum() {
    provoke_reply
    local said
    said=$(lab_captured -vv "$(by_family 'icmp[icmptype] == 3' 'icmp6[icmp6type] == 2')")
    expect_match "tcpdump" "$(by_family 'need to frag \(mtu 1400\)' '\[icmp6 sum ok\]')" "$said"
    if grep -q 'wrong icmp cksum' <<<"$said"; then fail "$said"; fi
}
