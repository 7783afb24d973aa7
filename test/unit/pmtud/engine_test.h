// SPDX-License-Identifier: MIT
// What the tests of the engine share: the engine on the process's adapter.
#ifndef PMTUD_TEST_ENGINE_TEST_H
#define PMTUD_TEST_ENGINE_TEST_H

#include <limits>
#include <stdexcept>

#include "PMTUDApp.h"
#include "SHM_Wrapper.h"
#include "VlanConfig.h"
#include "daemon_test.h"

namespace engine_test {

using daemon_test::Bytes;
using daemon_test::Journal;
using daemon_test::kCaseName;
using daemon_test::last;
using daemon_test::Lines;
using daemon_test::logAt;
using packets::bytesOf;
using packets::cut;
using packets::frameOfType;
using packets::GuardedBytes;
using packets::ipv4Frame;
using packets::ipv6Frame;
using packets::with;
using packets::operator+;

/// One byte of a frame changed.
struct Change {
    const char* name;
    size_t offset;
    uint8_t value;
};

/// The frame being handled is bound for egress 77, which leads to VLAN 100 with an MTU of 1500,
/// unless a test sets the fakes' answers.
class EngineTest : public daemon_test::FakesTest {
 protected:
    EngineTest() {
        adapter.setFrameInfo(0, 4, -1, 20, 2048, 77);
        adapter.setPostAction(SHM_Wrapper::eDiscard);
    }
    ~EngineTest() override { adapter.setHandler(nullptr); }

    bool handle(Bytes frame) { return app.handleFrame(frame.front(), frame.size()); }
    bool reply4(Bytes frame) { return app.sendICMP4PacketTooBig(frame.data(), frame.size()); }
    bool reply6(const Bytes& frame) {
        return app.sendICMP6PacketTooBig(frame.front(), frame.size());
    }

    /// Passes the frame to the queue's callback, with egress 77; returns the verdict code.
    static int receive(uint8_t* frame, size_t length) {
        st_pktd_shm_queue_entry_data_t record{};
        record.ctrl.egress = 77;
        return SHM_Wrapper_App::pkt_rx_cb(&record, frame, static_cast<int>(length));
    }
    static int receive(Bytes frame) { return receive(frame.data(), frame.size()); }

    /// The code for a frame that a handler accepts: that of the action that is set.
    int storedVerdict() {
        class Yes : public SHM_Handler {
            bool handleFrame(uint8_t&, size_t) override { return true; }
        } yes;
        adapter.setHandler(&yes);
        Bytes frame = ipv4Frame();
        return adapter.handleFrame(frame.data(), frame.size());
    }

    static void answerVlan(int vlan) {
        fake::platform().destVlan = [vlan](int) { return vlan; };
    }
    static void answerMtu(uint32_t mtu) {
        fake::platform().vlanMtu = [mtu](int) { return mtu; };
    }
    static Lines texts() { return fake::platform().debugTexts(); }
    static size_t messages() {
        return fake::syscalls().sent.size() + fake::platform().icmp6Messages.size();
    }
    static const fake::SentMessage& sent4() { return fake::syscalls().sent.at(0); }
    static const fake::Icmp6Message& sent6() { return fake::platform().icmp6Messages.at(0); }

    VlanConfig cfg;
    SHM_Wrapper_App& adapter = *getShmWrapperApp();
    PMTUDApp app{&cfg, &adapter};
};

}  // namespace engine_test

#endif
