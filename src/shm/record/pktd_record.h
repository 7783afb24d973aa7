// SPDX-License-Identifier: MIT
// The record that accompanies every frame in the packet-dispatch queue.
#ifndef PMTUD_PKTD_RECORD_H
#define PMTUD_PKTD_RECORD_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/*
 * The packet-dispatch service's shared-memory format. Fields are packed without
 * alignment, and multi-byte fields are in the processor's byte order. Read and
 * write fields as members, never through a pointer to one: only the member
 * access tells the compiler that it is unaligned.
 *
 * Bytes named "opaque" belong to the service.
 */
#pragma pack(push, 1)

typedef struct st_pktd_shm_queue_entry_ctrl_t {
    int32_t unit; /* switch unit that the frame came from, counted from 0 */
    int32_t port; /* ingress port, counted from 0 */
    uint8_t opaque_8[9];
    uint8_t is_trunk; /* non-zero: the frame came in on a trunk */
    int32_t tid;      /* trunk id, counted from 0; valid only if is_trunk is set */
    uint8_t opaque_22[12];
    int32_t dst_unit;  /* transmit: the unit to send from, counted from 0 */
    int32_t dst_port;  /* transmit: the port to send from, counted from 0 */
    uint8_t dst_valid; /* transmit: 1 if dst_unit and dst_port are valid */
    uint8_t opaque_43[28];
    int32_t proto; /* the dispatch service's protocol identifier */
    uint8_t opaque_75[14];
    int32_t vid; /* VLAN id */
    uint8_t opaque_93[2];
    uint16_t vtag; /* VLAN tag value */
    uint8_t opaque_97[14];
    int32_t egress; /* egress identifier, a key for the configuration service */
    uint8_t opaque_115[241];
    uint32_t post_kind; /* transmit: what the service does with the entry */
    uint8_t opaque_360[4];
} st_pktd_shm_queue_entry_ctrl_t;

typedef struct st_pktd_shm_queue_entry_data_t {
    uint8_t opaque_0[9000];
    st_pktd_shm_queue_entry_ctrl_t ctrl;
} st_pktd_shm_queue_entry_data_t;

#pragma pack(pop)

/* The offset and width of each field that the daemon uses. */
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, unit) == 0 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->unit) == 4,
              "unit");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, port) == 4 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->port) == 4,
              "port");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, is_trunk) == 17 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->is_trunk) == 1,
              "is_trunk");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, tid) == 18 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->tid) == 4,
              "tid");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, dst_unit) == 34 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->dst_unit) == 4,
              "dst_unit");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, dst_port) == 38 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->dst_port) == 4,
              "dst_port");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, dst_valid) == 42 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->dst_valid) == 1,
              "dst_valid");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, proto) == 71 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->proto) == 4,
              "proto");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, vid) == 89 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->vid) == 4,
              "vid");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, vtag) == 95 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->vtag) == 2,
              "vtag");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, egress) == 111 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->egress) == 4,
              "egress");
static_assert(offsetof(st_pktd_shm_queue_entry_ctrl_t, post_kind) == 356 &&
                  sizeof(((st_pktd_shm_queue_entry_ctrl_t*)0)->post_kind) == 4,
              "post_kind");
static_assert(sizeof(st_pktd_shm_queue_entry_ctrl_t) == 364, "control block");
static_assert(offsetof(st_pktd_shm_queue_entry_data_t, ctrl) == 9000, "ctrl");
static_assert(sizeof(st_pktd_shm_queue_entry_data_t) == 9364, "record");

#endif
