// SPDX-License-Identifier: MIT
// Frames posted to the transmit queue.
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "pktd.h"
#include "world.h"

namespace {

using Record = st_pktd_shm_queue_entry_data_t;

void* const kQueue = pktd_tx_queue_pool + 8;

void attach() {
    ASSERT_EQ(pktd_shm_queue_init("pmtud", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool), 0);
}

// An Ethernet frame to host a, tagged for the VLAN or, for 0, untagged.
Bytes frame(int vlan) {
    Bytes bytes = {0x02, 0, 0, 0, 0x10, 0x02, 0x02, 0, 0, 0, 0x10, 0x01};
    if (vlan != 0)
        for (const int byte : {0x81, 0x00, vlan >> 8, vlan & 0xff})
            bytes.push_back(static_cast<uint8_t>(byte));
    bytes.push_back(0x08);
    bytes.push_back(0x00);
    Ipv4 ipv4;
    ipv4.size = 60;
    ipv4.source = "10.0.10.1";
    ipv4.destination = "10.0.10.2";
    const Bytes rest = packet(ipv4);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

std::unique_ptr<Record> recordOf(const Bytes& bytes, int vid) {
    auto record = std::make_unique<Record>();
    std::memset(record.get(), 0xff, sizeof *record);
    EXPECT_EQ(pktd_queue_entry_data_vlan_based_init(record.get(), 0x0800, vid, bytes.data(),
                                                    bytes.size()),
              0);
    return record;
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

TEST_F(TransmitQueue, PostsOutOfTheVlanWithoutItsTag) {
    inOwnProcess([] {
        attach();
        Capture atA("a");
        const Bytes bytes = frame(10);
        const auto record = recordOf(bytes, 10);
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), 0);
        EXPECT_EQ(out, 74U);
        EXPECT_EQ(atA.next(isPosted)[0], 0x45);
    });
}

TEST_F(TransmitQueue, PostsAnUntaggedFrameAsItStands) {
    inOwnProcess([] {
        attach();
        Capture atA("a");
        const Bytes bytes = frame(0);
        const auto record = recordOf(bytes, 10);
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), nullptr), 0);
        EXPECT_EQ(atA.next(isPosted)[0], 0x45);
    });
}

TEST_F(TransmitQueue, KeepsTheTagOfAnotherVlan) {
    inOwnProcess([] {
        attach();
        const Bytes bytes = frame(11);
        const auto record = recordOf(bytes, 10);
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), 0);
        EXPECT_EQ(out, 78U);
    });
}

TEST_F(TransmitQueue, PostsOutOfTheUnitAndPort) {
    inOwnProcess([] {
        attach();
        Capture atA("a");
        const Bytes bytes = frame(10);
        const auto record = recordOf(bytes, -1);
        record->ctrl.dst_unit = 0;
        record->ctrl.dst_port = static_cast<int32_t>(if_nametoindex("bcm0.10")) - 1;
        record->ctrl.dst_valid = 1;
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), 0);
        EXPECT_EQ(out, 74U);
        EXPECT_EQ(atA.next(isPosted)[0], 0x45);
    });
}

TEST_F(TransmitQueue, KeepsTheTagOutOfAPortThatIsNoVlan) {
    inOwnProcess([] {
        attach();
        const Bytes bytes = frame(10);
        const auto record = recordOf(bytes, 10);
        record->ctrl.dst_port = static_cast<int32_t>(if_nametoindex("fence")) - 1;
        record->ctrl.dst_valid = 1;
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), 0);
        EXPECT_EQ(out, 78U);
    });
}

TEST_F(TransmitQueue, KeepsTheTagThatOnlyHasAPriority) {
    inOwnProcess([] {
        attach();
        Bytes bytes = frame(4095);
        bytes[14] = 0xe0;
        bytes[15] = 0x00;
        const auto record = recordOf(bytes, 10);
        record->ctrl.dst_port = static_cast<int32_t>(if_nametoindex("fence")) - 1;
        record->ctrl.dst_valid = 1;
        uint32_t out = 0;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), 0);
        EXPECT_EQ(out, 78U);
    });
}

TEST_F(TransmitQueue, RefusesWhereThereIsNoSuchVlanOrPort) {
    inOwnProcess([] {
        attach();
        const Bytes bytes = frame(0);
        uint32_t out = 77;
        for (const int vid : {-1, 0, 99, 4095})
            EXPECT_EQ(shm_data_entry_post(kQueue, recordOf(bytes, vid).get(), bytes.size(), &out),
                      -ENODEV)
                << vid;
        const auto record = recordOf(bytes, 10);
        record->ctrl.dst_valid = 1;
        for (const int port : {-1, 9998, 2147483647}) {
            record->ctrl.dst_port = port;
            EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), -ENODEV)
                << port;
        }
        record->ctrl.dst_port = static_cast<int32_t>(if_nametoindex("bcm0.10")) - 1;
        record->ctrl.dst_unit = 1;
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), bytes.size(), &out), -ENODEV);
        EXPECT_EQ(out, 77U);
    });
}

TEST_F(TransmitQueue, RefusesWhatIsNoFrame) {
    inOwnProcess([] {
        attach();
        const auto record = recordOf(frame(0), 10);
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), 13, nullptr), -EINVAL);
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), 9001, nullptr), -EMSGSIZE);
        EXPECT_EQ(shm_data_entry_post(kQueue, nullptr, 74, nullptr), -EINVAL);
        // More than the VLAN takes.
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), 1519, nullptr), -EMSGSIZE);
    });
}

TEST_F(TransmitQueue, BeginsEightBytesIntoItsPool) {
    inOwnProcess([] {
        attach();
        const auto record = recordOf(frame(0), 10);
        EXPECT_EQ(shm_data_entry_post(pktd_tx_queue_pool, record.get(), 74, nullptr), -EINVAL);
        EXPECT_EQ(shm_data_entry_post(pktd_rx_queue_pool + 8, record.get(), 74, nullptr), -EINVAL);
        EXPECT_EQ(shm_data_entry_post(nullptr, record.get(), 74, nullptr), -EINVAL);
    });
}

TEST_F(TransmitQueue, IsReachedByAttaching) {
    inOwnProcess([] {
        const auto record = recordOf(frame(0), 10);
        EXPECT_EQ(shm_data_entry_post(kQueue, record.get(), 74, nullptr), -ENOTCONN);
    });
}
