// SPDX-License-Identifier: MIT
// A switch and two hosts in private network namespaces.
//
//   host a, VLAN 10                 the switch                    host b, VLAN 20
//   10.0.10.2  fd00:10::2  ── bcm0.10 (MTU 1500)
//                             bcm0.20 (MTU 1280) ──  10.0.20.2  fd00:20::2
//                             bcm0.30 (MTU 1000): where the fence packets go
//
// The test's process is in the switch, and has a private /run and /dev.
#ifndef PMTUD_TEST_LINUX_WORLD_H
#define PMTUD_TEST_LINUX_WORLD_H

#include <gtest/gtest.h>
#include <linux/if_packet.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "descriptor.h"
#include "messages.h"
#include "pktd.h"

/// Throws std::system_error, by errno, if a call has failed.
void check(bool succeeded, const char* what);

/// All packets of an interface.
sockaddr_ll address(int ifindex);

/// Moves the process into new mount and network namespaces, with an empty /run and a /dev without
/// the machine's sockets. Throws std::system_error if that is not allowed.
void isolate();

/// How long a test waits for an event before it fails: twice what all VLANs take under valgrind.
constexpr std::chrono::seconds kPatience{45};

/// Waits until the descriptor is readable; throws std::runtime_error naming `what` when
/// patience runs out.
void awaitReadable(int fd, const char* what);

/// Runs the command line in the switch; throws std::runtime_error if it fails.
void run(const std::string& command);

/// The same, and returns its standard output.
std::string output(const std::string& command);

/// Runs `action` in the namespace of host "a" or "b".
void onHost(const std::string& host, const std::function<void()>& action);

/// Runs the body of a test in a new process, where the library is in the state in which a process
/// starts. The test fails if the body does.
void inOwnProcess(const std::function<void()>& body);

/// Attaches this process to the packet-dispatch queue, as the daemon does. Returns the call's
/// result.
int attach();

/// A receive callback that only returns the verdict discard.
int discard(const st_pktd_shm_queue_entry_data_t* record, uint8_t* frame, int size);

/// Starts the receive thread, as the daemon does. Returns the call's result.
int startThread(pktd_rx_cb_t callback = discard, const char* client = "pmtud");

/// All packets that a host's or the switch's interface receives.
class Capture {
 public:
    /// `host` is "a", "b" or, for the switch, empty. Holds thousands of packets until they are
    /// read.
    explicit Capture(const std::string& host, const std::string& interface = "eth0");

    /// Waits for the next packet that `wanted` accepts; returns it from its IP header on.
    Bytes next(const std::function<bool(const Bytes&)>& wanted);

    /// Whether the frame of the packet that next returned was addressed to this interface.
    bool wasForTheInterface() const { return m_packetType == PACKET_HOST; }

    /// Its EtherType.
    uint16_t etherType() const { return m_etherType; }

 private:
    pmtud_linux::Descriptor m_socket;
    int m_packetType = 0;
    uint16_t m_etherType = 0;
};

/// The changes of the switch's nftables rules, from its construction on.
class RuleChanges {
 public:
    RuleChanges();

    /// Waits for the end of one transaction.
    void await();

 private:
    pmtud_linux::Descriptor m_socket;
};

/// Waits until the interface accepts packets.
void awaitLink(const std::string& interface);

/// The interface's index.
int32_t indexOf(const std::string& interface);

class World : public testing::Test {
 protected:
    void SetUp() override;

    /// Sends the packet from host a's interface to bcm0.10, or to another link-layer address.
    void send(const Bytes& packet, const std::string& destination = "02:00:00:00:10:01");

    /// Sends the packet from an interface of the switch.
    static void sendInto(const std::string& interface, const Bytes& packet,
                         const std::string& destination);

    /// Sends the packet from host b's interface to bcm0.20.
    void sendFromB(const Bytes& packet);

    /// Sends a packet that the kernel is certain to refuse. If the client's next frame is this one,
    /// the kernel refused none of the packets sent before.
    void sendFence();

 private:
    struct Sender {
        void open(const std::string& name);
        pmtud_linux::Descriptor socket;
        int interface = 0;
    };
    static void send(const Sender& sender, const Bytes& packet, const std::string& destination);

    Sender m_a;
    Sender m_b;
};

/// How many refused packets for the interface's VLAN the rules handed over.
uint64_t handedOver(const std::string& interface);

/// All rules in the namespace, as nft lists them.
std::string ruleset();

/// Whether an IPv4 packet without options is ICMP "fragmentation needed".
bool isTooBig4(const Bytes& packet);

/// The MTU that such a packet names.
size_t mtuOf4(const Bytes& tooBig);

#endif
