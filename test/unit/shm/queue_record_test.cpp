// SPDX-License-Identifier: MIT
// Tests of the queue record's layout: the dispatch service's shared-memory format, byte by byte.
#include "shm_test.h"

namespace {

using Record = st_pktd_shm_queue_entry_data_t;
using Control = st_pktd_shm_queue_entry_ctrl_t;

struct Field {
    const char* name;
    std::size_t inRecord;
    std::size_t inControl;
    std::size_t width;
    std::size_t expectedInRecord;
    std::size_t expectedInControl;
    std::size_t expectedWidth;
};

class QueueRecordFieldTest : public testing::TestWithParam<Field> {};

TEST_P(QueueRecordFieldTest, HasItsOffsetsAndWidth) {
    EXPECT_EQ(GetParam().inRecord, GetParam().expectedInRecord);
    EXPECT_EQ(GetParam().inControl, GetParam().expectedInControl);
    EXPECT_EQ(GetParam().width, GetParam().expectedWidth);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, QueueRecordFieldTest,
    testing::Values(Field{"Unit", offsetof(Record, ctrl.unit), offsetof(Control, unit),
                          sizeof(Control::unit), 9000, 0, 4},
                    Field{"Port", offsetof(Record, ctrl.port), offsetof(Control, port),
                          sizeof(Control::port), 9004, 4, 4},
                    Field{"IsTrunk", offsetof(Record, ctrl.is_trunk), offsetof(Control, is_trunk),
                          sizeof(Control::is_trunk), 9017, 17, 1},
                    Field{"TrunkId", offsetof(Record, ctrl.tid), offsetof(Control, tid),
                          sizeof(Control::tid), 9018, 18, 4},
                    Field{"DestinationUnit", offsetof(Record, ctrl.dst_unit),
                          offsetof(Control, dst_unit), sizeof(Control::dst_unit), 9034, 34, 4},
                    Field{"DestinationPort", offsetof(Record, ctrl.dst_port),
                          offsetof(Control, dst_port), sizeof(Control::dst_port), 9038, 38, 4},
                    Field{"DestinationValid", offsetof(Record, ctrl.dst_valid),
                          offsetof(Control, dst_valid), sizeof(Control::dst_valid), 9042, 42, 1},
                    Field{"Proto", offsetof(Record, ctrl.proto), offsetof(Control, proto),
                          sizeof(Control::proto), 9071, 71, 4},
                    Field{"Vid", offsetof(Record, ctrl.vid), offsetof(Control, vid),
                          sizeof(Control::vid), 9089, 89, 4},
                    Field{"VlanTag", offsetof(Record, ctrl.vtag), offsetof(Control, vtag),
                          sizeof(Control::vtag), 9095, 95, 2},
                    Field{"Egress", offsetof(Record, ctrl.egress), offsetof(Control, egress),
                          sizeof(Control::egress), 9111, 111, 4},
                    Field{"PostKind", offsetof(Record, ctrl.post_kind),
                          offsetof(Control, post_kind), sizeof(Control::post_kind), 9356, 356, 4}),
    [](const auto& row) { return row.param.name; });

TEST(QueueRecordTest, ControlBlockIs364BytesBehind9000) {
    EXPECT_EQ(offsetof(Record, ctrl), 9000U);
    EXPECT_EQ(sizeof(Control), 364U);
}

TEST(QueueRecordTest, Is9364Bytes) { EXPECT_EQ(sizeof(Record), 9364U); }

TEST(QueueRecordTest, MayStandAtAnyAddress) { EXPECT_EQ(alignof(Record), 1U); }

}  // namespace
