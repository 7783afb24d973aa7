// SPDX-License-Identifier: MIT
// Frames posted to the transmit queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "pktd.h"
#include "world.h"

namespace {

using Record = st_pktd_shm_queue_entry_data_t;

void* const kQueue = pktd_tx_queue_pool + 8;

// An Ethernet frame to host a, tagged for the VLAN or, for 0, untagged.
Bytes frame(int vlan) {
    Bytes bytes = {0x02, 0, 0, 0, 0x10, 0x02, 0x02, 0, 0, 0, 0x10, 0x01};
    if (vlan != 0)
        bytes = bytes + Bytes{0x81, 0, static_cast<uint8_t>(vlan >> 8), static_cast<uint8_t>(vlan)};
    return bytes + Bytes{0x08, 0x00} +
           bytesOf(Ipv4{.size = 60, .from = "10.0.10.1", .to = "10.0.10.2"});
}

std::unique_ptr<Record> recordOf(const Bytes& bytes, int vid) {
    auto record = std::make_unique<Record>();
    memset(record.get(), 0xff, sizeof *record);
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(record.get(), 0x0800, vid, bytes.data(),
                                                    bytes.size()),
              0);
    return record;
}

int post(const std::unique_ptr<Record>& record, size_t size, uint32_t* sent = nullptr) {
    return shm_data_entry_post(kQueue, record.get(), size, sent);
}

bool isPosted(const Bytes& bytes) { return bytes[0] >> 4 == 4 && bytes.size() == 60; }

}  // namespace

class TransmitQueue : public World {};

TEST_F(TransmitQueue, FillsTheWholeRecord) {
    const Bytes bytes = frame(10);
    const auto record = recordOf(bytes, 10);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), record->opaque_0));
    EXPECT_TRUE(std::all_of(record->opaque_0 + bytes.size(), record->opaque_0 + 9000,
                            [](uint8_t byte) { return byte == 0; }));
    EXPECT_EQ(+record->ctrl.vid, 10);
    EXPECT_EQ(+record->ctrl.proto, 0x0800);
    EXPECT_EQ(+record->ctrl.unit, 0);
    EXPECT_EQ(+record->ctrl.dst_valid, 0);
    EXPECT_EQ(+record->ctrl.post_kind, 0U);
}

TEST_F(TransmitQueue, TakesFramesOfUpTo9000Bytes) {
    const Bytes bytes(9001);
    Record record;
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(&record, 1, 10, bytes.data(), 9000), 0);
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(&record, 1, 10, bytes.data(), 9001), -EMSGSIZE);
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(&record, 1, 10, nullptr, 100), -EINVAL);
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(nullptr, 1, 10, bytes.data(), 100), -EINVAL);
}

namespace {

struct Post {
    const char* name;
    Bytes frame;
    int vid;
    const char* port;  // nullptr: none
    size_t sent;
    bool arrives;  // at host a
};

class Posted : public World, public testing::WithParamInterface<Post> {};

// A tag of VLAN 0, which only has a priority.
Bytes priorityTagged() {
    Bytes bytes = frame(4095);
    packets::put16(&bytes[14], 0xe000);
    return bytes;
}

}  // namespace

TEST_P(Posted, FrameLeavesViaItsVlanOrPortWithoutTheTagOfThatVlan) {
    inOwnProcess([] {
        const Post& row = GetParam();
        ASSERT_EQ(attach(), 0);
        Capture atA("a");
        const auto record = recordOf(row.frame, row.vid);
        if (row.port != nullptr) {
            record->ctrl.dst_unit = 0;
            record->ctrl.dst_port = indexOf(row.port) - 1;
            record->ctrl.dst_valid = 1;
        }
        uint32_t out = 0;
        EXPECT_EQ(post(record, row.frame.size(), &out), 0);
        EXPECT_EQ(out, row.sent);
        EXPECT_EQ(post(record, row.frame.size()), 0);
        if (!row.arrives) return;
        for (int i = 0; i < 2; ++i) EXPECT_EQ(atA.next(isPosted)[0], 0x45);
    });
}

INSTANTIATE_TEST_SUITE_P(
    With, Posted,
    testing::Values(Post{"ItsVlansTag", frame(10), 10, nullptr, 74, true},
                    Post{"NoTag", frame(0), 10, nullptr, 74, true},
                    Post{"AnotherVlansTag", frame(11), 10, nullptr, 78, false},
                    Post{"ThePortsVlansTag", frame(10), -1, "bcm0.10", 74, true},
                    Post{"ATagOutOfAPlainPort", frame(10), 10, "fence", 78, false},
                    Post{"APriorityOutOfAPlainPort", priorityTagged(), 10, "fence", 78, false}),
    [](const auto& post) { return std::string(post.param.name); });

TEST_F(TransmitQueue, RefusesAVlanOrPortThatDoesNotExist) {
    run("ip link add bcm0.0 type veth peer name bcm0.4095");
    inOwnProcess([] {
        ASSERT_EQ(attach(), 0);
        const Bytes bytes = frame(0);
        uint32_t out = 77;
        for (const int vid : {-1, 0, 99, 4095})
            EXPECT_EQ(post(recordOf(bytes, vid), bytes.size(), &out), -ENODEV) << vid;
        const auto record = recordOf(bytes, 10);
        record->ctrl.dst_valid = 1;
        for (const int port : {-1, 9998, 2147483647}) {
            record->ctrl.dst_port = port;
            EXPECT_EQ(post(record, bytes.size(), &out), -ENODEV) << port;
        }
        record->ctrl.dst_port = indexOf("bcm0.10") - 1;
        record->ctrl.dst_unit = 1;
        EXPECT_EQ(post(record, bytes.size(), &out), -ENODEV);
        EXPECT_EQ(out, 77U);
    });
}

TEST_F(TransmitQueue, KnowsAVlanByTheAlternativeNameOfItsInterface) {
    inOwnProcess([] {
        run("ip link property add dev fence altname bcm0.4094");
        ASSERT_EQ(attach(), 0);
        const auto record = recordOf(frame(4094), 4094);
        uint32_t out = 0;
        EXPECT_EQ(post(record, 78, &out), 0);
        EXPECT_EQ(out, 74U);
        record->ctrl.dst_unit = 0;
        record->ctrl.dst_port = indexOf("fence") - 1;
        record->ctrl.dst_valid = 1;
        EXPECT_EQ(post(record, 78, &out), 0);
        EXPECT_EQ(out, 74U);
        run("ip link property del dev fence altname bcm0.4094");
        EXPECT_EQ(post(record, 78, &out), 0);
        EXPECT_EQ(out, 78U);
        record->ctrl.dst_valid = 0;
        EXPECT_EQ(post(record, 78, &out), -ENODEV);
    });
}

TEST_F(TransmitQueue, RefusesWhatIsNotAFrame) {
    inOwnProcess([] {
        ASSERT_EQ(attach(), 0);
        const auto record = recordOf(frame(0), 10);
        EXPECT_EQ(post(record, 13), -EINVAL);
        EXPECT_EQ(post(record, 9001), -EMSGSIZE);
        EXPECT_EQ(post(nullptr, 74), -EINVAL);
        // Longer than the VLAN's MTU.
        EXPECT_EQ(post(record, 1519), -EMSGSIZE);
    });
}

TEST_F(TransmitQueue, BeginsEightBytesIntoItsPoolAndNeedsToBeAttached) {
    inOwnProcess([] {
        const auto record = recordOf(frame(0), 10);
        EXPECT_EQ(post(record, 74), -ENOTCONN);
        ASSERT_EQ(attach(), 0);
        for (void* const queue :
             {static_cast<void*>(pktd_tx_queue_pool), static_cast<void*>(pktd_rx_queue_pool + 8),
              static_cast<void*>(nullptr)})
            EXPECT_EQ(shm_data_entry_post(queue, record.get(), 74, nullptr), -EINVAL);
    });
}
