// SPDX-License-Identifier: MIT
// A switch and two hosts in private network namespaces.
//
//   host a, VLAN 10                       the switch                    host b, VLAN 20
//   10.0.10.2  2001:db8:10::2  ── bcm0.10 (MTU 1500)
//                                 bcm0.20 (MTU 1280) ──  10.0.20.2  2001:db8:20::2
//                                 bcm0.30 (MTU 1000): where the fence packets go
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

#include "answer.h"
#include "descriptor.h"
#include "packet.h"
#include "pktd.h"
#include "private_machine.h"

using machine::check;
using machine::inNetwork;
using machine::output;
using packets::Bytes;
using packets::bytesOf;
using packets::cut;
using packets::Ipv4;
using packets::Ipv6;
using packets::operator+;

/// How long a test waits for an event before it fails: twice what all VLANs take under valgrind.
constexpr std::chrono::seconds kPatience{45};

/// Waits until the descriptor is readable, or the condition is true; throws std::runtime_error,
/// which names `what`, after kPatience.
void awaitReadable(int fd, const char* what);
void await(const char* what, const std::function<bool()>& condition);

/// Runs the command line in the switch; throws std::runtime_error if it fails.
void run(const std::string& command);

/// Runs commands of ip(8), one per line, in one process.
void batch(const std::string& commands);

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
    /// Holds thousands of packets until they are read.
    explicit Capture(const std::string& host);

    /// Waits for the next packet that `wanted` accepts; returns it from its IP header on.
    Bytes next(const std::function<bool(const Bytes&)>& wanted);

    /// Waits for the next path-MTU answer. Its views are valid until the next call.
    packets::Answer nextAnswer();

    /// Whether the frame of the last packet was addressed to this interface.
    bool wasForTheInterface() const { return m_packetType == PACKET_HOST; }

    /// Its EtherType.
    uint16_t etherType() const { return m_etherType; }

 private:
    pmtud_linux::Descriptor m_socket;
    Bytes m_answer;
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

/// Runs the command, which causes one change of the rules, and waits for the change.
void changeRules(const std::string& command);

/// All rules in the namespace, as nft lists them.
std::string ruleset();

/// How many refused packets for the interface's VLAN the rules handed over.
uint64_t handedOver(const std::string& interface);

/// Sends the message to the netlink socket with this port, as any privileged process can.
void forge(int bus, uint32_t port, const Bytes& message);

/// The port of the socket that has log group 89.
uint32_t ownerOfLogGroup();

/// Waits until the kernel holds no message that a netfilter socket has not read.
void awaitEmptyQueues();

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
        void send(const Bytes& packet, const std::string& destination) const;
        pmtud_linux::Descriptor socket;
        int interface = 0;
    };

    Sender m_a;
    Sender m_b;
};

#endif
