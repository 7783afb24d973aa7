// SPDX-License-Identifier: MIT
// Tests of exceptions that pass through the engine: from the platform, from log statements, from
// addresses that cannot be written as text.
#include <arpa/inet.h>

#include <boost/system/system_error.hpp>
#include <cerrno>
#include <stdexcept>

#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::last;
using engine_test::Lines;
using engine_test::recordWithEgress;

namespace {
bool addressesFail = false;
}

extern "C" {

const char* __real_inet_ntop(int family, const void* address, char* text, socklen_t size);

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    if (!addressesFail) return __real_inet_ntop(family, address, text, size);
    errno = ENOSPC;
    return nullptr;
}

}  // extern "C"

namespace {

/// Thrown by the platform.
struct Gone {};

class ExceptionTest : public EngineTest {
 protected:
    ~ExceptionTest() override { addressesFail = false; }

    int receive(Bytes frame) {
        const st_pktd_shm_queue_entry_data_t record = recordWithEgress(77);
        return SHM_Wrapper_App::pkt_rx_cb(&record, frame.data(), static_cast<int>(frame.size()));
    }

    /// Makes the clock fail, and every log statement with it, once the debug process has been
    /// given a line that begins like this.
    static void failClockBehind(const std::string& text) {
        fake::platform().onDebugLine = [text](const fake::DebugLine& line) {
            if (line.text.starts_with(text)) fake::clock().localtimeFails = true;
        };
    }

    /// Whether the action that stands is discard: what a handled frame would come to.
    bool discardStands() {
        class Yes : public SHM_Handler {
            bool handleFrame(uint8_t&, std::size_t) override { return true; }
        } yes;
        adapter.setHandler(&yes);
        Bytes frame = ipv4Frame();
        return adapter.handleFrame(frame.data(), frame.size()) == 7;
    }
};

// The platform.

TEST_F(ExceptionTest, OfTheVlansAnswerPassesTheCallback) {
    fake::platform().destVlan = [](int) -> int { throw Gone(); };
    EXPECT_THROW(receive(ipv4Frame()), Gone);
    EXPECT_THROW(receive(ipv6Frame(8)), Gone);
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, OfTheMtusAnswerPassesTheCallback) {
    fake::platform().vlanMtu = [](int) -> uint32_t { throw Gone(); };
    EXPECT_THROW(receive(ipv4Frame()), Gone);
    EXPECT_THROW(receive(ipv6Frame(8)), Gone);
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, OfTheConfigurationLeavesTheDiscardStanding) {
    fake::platform().destVlan = [](int) -> int { throw Gone(); };
    adapter.setPostAction(SHM_Wrapper::eAccept);
    EXPECT_THROW(receive(ipv4Frame()), Gone);
    EXPECT_TRUE(discardStands());
}

TEST_F(ExceptionTest, OfTheSocketsOpeningPassesTheCallbackAndClosesNothing) {
    fake::platform().icmp6SocketCreate = [](int32_t*) -> int { throw Gone(); };
    EXPECT_THROW(receive(ipv6Frame(8)), Gone);
    EXPECT_EQ(fake::syscalls().calls, Lines{"if_nametoindex(\"bcm0.20\")"});
}

TEST_F(ExceptionTest, OfTheIpv6SendPassesTheCallbackAndLeavesTheSocketOpen) {
    fake::platform().icmp6Send = []() -> int { throw Gone(); };
    EXPECT_THROW(receive(ipv6Frame(8)), Gone);
    EXPECT_EQ(fake::syscalls().calls, Lines{"if_nametoindex(\"bcm0.20\")"});
}

TEST_F(ExceptionTest, DoesNotTouchTheNextFrame) {
    fake::platform().destVlan = [](int) -> int { throw Gone(); };
    EXPECT_THROW(receive(ipv4Frame()), Gone);
    answerVlan(100);
    EXPECT_EQ(receive(ipv4Frame()), 7);
    EXPECT_EQ(fake::syscalls().sent.size(), 1U);
}

// Log statements, which need the time.

TEST_F(ExceptionTest, OfTheFirstStatementComesBeforeTheDebugProcessAndTheDiscard) {
    adapter.setPostAction(SHM_Wrapper::eAccept);
    {
        const CapturedLog log(qv::DEBUG);
        fake::clock().localtimeFails = true;
        EXPECT_THROW(handle(ipv4Frame()), std::runtime_error);
        EXPECT_EQ(log.text(), "\r\n");
    }
    EXPECT_EQ(fake::platform().debugTexts(), Lines());
    EXPECT_FALSE(discardStands());
}

TEST_F(ExceptionTest, OfAStatementSaysThatThereIsNoLocalTime) {
    const CapturedLog log(qv::DEBUG);
    fake::clock().localtimeFails = true;
    try {
        handle(ipv4Frame());
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Could not get local time");
    }
}

TEST_F(ExceptionTest, OfTheStatementOnTheIpv4MessageComesBeforeTheSocket) {
    failClockBehind(" PMTUD-Prot:    Dest VLAN MTU: ");
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(handle(ipv4Frame()), std::runtime_error);
    EXPECT_EQ(last(linesOf(log.text())), "\r\n");
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, OfTheStatementOnTheIpv6MessageComesBeforeTheInterfaceIsLookedUp) {
    failClockBehind(" PMTUD-Prot:    Dest VLAN MTU: ");
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(handle(ipv6Frame(8)), std::runtime_error);
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, OfTheStatementOnTheInterfaceComesBeforeTheSocket) {
    failClockBehind(" PMTUD-Prot: Creating ICMPv6");
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(handle(ipv6Frame(8)), std::runtime_error);
    EXPECT_EQ(fake::platform().calls,
              (Lines{"cfg_vlan_l3_get_dest_vlan(77)", "cfg_vlan_l3_get_mtu(100)"}));
}

TEST_F(ExceptionTest, OfTheStatementOnTheSocketLeavesItOpenAndSendsNothing) {
    fake::platform().icmp6SocketCreate = [](int32_t* fd) {
        *fd = 606;
        fake::clock().localtimeFails = true;
        return 0;
    };
    const CapturedLog log(qv::DEBUG);
    EXPECT_THROW(receive(ipv6Frame(8)), std::runtime_error);
    EXPECT_EQ(fake::platform().icmp6Messages.size(), 0U);
    EXPECT_EQ(fake::syscalls().calls, Lines{"if_nametoindex(\"bcm0.20\")"});
}

TEST_F(ExceptionTest, OfAStatementIsNoneWhereTheThresholdSuppressesIt) {
    const CapturedLog log(qv::INFO);
    fake::clock().localtimeFails = true;
    EXPECT_TRUE(handle(ipv4Frame()));
    EXPECT_TRUE(handle(ipv6Frame(8)));
    EXPECT_EQ(log.text(), "");
}

// Addresses.

TEST_F(ExceptionTest, OfAnAddressLeavesTheLineAsFarAsItWas) {
    addressesFail = true;
    EXPECT_THROW(receive(ipv4Frame()), boost::system::system_error);
    EXPECT_EQ(last(fake::platform().debugTexts()), " PMTUD-Prot:    From: ");
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, OfAnIpv6AddressLeavesTheLineAsFarAsItWas) {
    addressesFail = true;
    EXPECT_THROW(receive(ipv6Frame(8)), boost::system::system_error);
    EXPECT_EQ(last(fake::platform().debugTexts()), " PMTUD-Prot:    From: ");
    EXPECT_EQ(fake::syscalls().calls, Lines());
}

TEST_F(ExceptionTest, IsNoneOnceTheSourceWasConverted) {
    fake::platform().icmp6Send = [] {
        addressesFail = true;
        return 0;
    };
    EXPECT_EQ(receive(ipv6Frame(8)), 7);
    EXPECT_EQ(last(fake::platform().debugTexts()),
              " PMTUD-Prot: ICMPv6 message sent to source 2001:db8:0:10::a");
    EXPECT_EQ(last(fake::syscalls().calls), "close(606)");
}

TEST_F(ExceptionTest, IsNoneWhereNoAddressOfAFailedSendIsWritten) {
    fake::platform().icmp6Send = [] {
        addressesFail = true;
        return -1;
    };
    EXPECT_EQ(receive(ipv6Frame(8)), 7);
    EXPECT_EQ(last(fake::syscalls().calls), "close(606)");
}

}  // namespace
