// SPDX-License-Identifier: MIT
// Packets that travel merged, by offload of the sender or of the router's interfaces.
#include "twin_fixture.h"

namespace twin {

namespace {

struct Offloads {
    const char* name;
    const char* router;  // ethtool's words for bcm0.10
    const char* sender;
    const char* egress;
    size_t messages;  // about two TCP and two UDP packets of four segments each
};

class Offload : public TwinTest, public testing::WithParamInterface<Offloads> {
 protected:
    static void set(Twins& twins) {
        const Offloads& offloads = GetParam();
        twins.shell(std::string("ethtool -K bcm0.10 ") + offloads.router);
        twins.shell(std::string("ethtool -K bcm0.20 ") + offloads.egress);
        twins.onHosts(std::string("ethtool -K a ") + offloads.sender);
    }
};

// Each sends segments that the egress takes, and segments one byte longer.
TEST_P(Offload, TcpOf9000To1500IsForwardedAndToldAlike) {
    Twins twins(run, {.a = 9000, .b = 1500});
    set(twins);
    twins.send(Merged{.from = "10.0.10.2", .to = "10.0.20.2", .each = 1460});
    twins.send(Merged{.from = "2001:db8:10::2", .to = "2001:db8:20::2", .each = 1440});
    twins.send(Ipv4{.size = 1501});
    twins.send(Ipv6{.size = 1501});
    twins.send(Ipv4{.size = 9000});
    twins.send(Ipv6{.size = 9000});
    expectAlike(twins, 4);
}

TEST_P(Offload, TcpOfTheLargestSegmentsOf9000To1500IsToldAlike) {
    Twins twins(run, {.a = 9000, .b = 1500});
    set(twins);
    twins.send(Merged{.from = "10.0.10.2", .to = "10.0.20.2", .bytes = 8960, .each = 8960});
    twins.send(
        Merged{.from = "2001:db8:10::2", .to = "2001:db8:20::2", .bytes = 8940, .each = 8940});
    expectAlike(twins, 2);
}

TEST_P(Offload, UdpThatIsMergedAndFitsArrivesAlike) {
    Twins twins(run);
    set(twins);
    twins.send(Merged{.from = "10.0.10.2", .to = "10.0.20.2", .each = 1372, .isTcp = false});
    twins.send(
        Merged{.from = "2001:db8:10::2", .to = "2001:db8:20::2", .each = 1352, .isTcp = false});
    expectAlike(twins, 0);
}

TEST_P(Offload, TcpOf1500To1280ThatFitsArrivesAlike) {
    Twins twins(run, {.b = 1280});
    set(twins);
    twins.send(Merged{.from = "10.0.10.2", .to = "10.0.20.2", .each = 1240});
    twins.send(Merged{.from = "2001:db8:10::2", .to = "2001:db8:20::2", .each = 1220});
    expectAlike(twins, 0);
}

TEST_P(Offload, MergedPacketsThatDoNotFitAreToldAlike) {
    Twins twins(run);
    set(twins);
    const size_t each = 1400;
    const size_t count = 4;
    for (const bool isTcp : {true, false}) {
        twins.send(Merged{.from = "10.0.10.2",
                          .to = "10.0.20.2",
                          .bytes = count * each,
                          .each = each,
                          .isTcp = isTcp});
        twins.send(Merged{.from = "2001:db8:10::2",
                          .to = "2001:db8:20::2",
                          .bytes = count * each,
                          .each = each,
                          .isTcp = isTcp});
    }
    // One for each packet that the router sees.
    expectAlike(twins, GetParam().messages);
}

INSTANTIATE_TEST_SUITE_P(
    , Offload,
    testing::Values(Offloads{"Off", "gro off", "tso off gso off tx-udp-segmentation off",
                             "gso off tso off", 16},
                    Offloads{"AtTheSender", "gro off", "tso on gso on", "gso on tso on", 4},
                    Offloads{"AtTheRouter", "gro on",
                             "tx off tso off gso off tx-udp-segmentation off", "gso off tso off",
                             12},
                    Offloads{"Everywhere", "gro on", "tso on gso on", "gso on tso on", 4}),
    [](const testing::TestParamInfo<Offloads>& offloads) {
        return std::string(offloads.param.name);
    });

}  // namespace

}  // namespace twin
