/* SPDX-License-Identifier: MIT */
/* The packet-dispatch queue: delivers frames to the daemon and accepts frames from it. */
#ifndef PMTUD_PLATFORM_PKTD_H
#define PMTUD_PLATFORM_PKTD_H

#include <stddef.h>
#include <stdint.h>

#include "pktd_record.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The receive callback's verdicts. */
enum {
    PKTD_VERDICT_INVALID = 1, /* no valid action had been set */
    PKTD_VERDICT_DISCARD = 7, /* drop the frame */
    PKTD_VERDICT_ACCEPT = 8,  /* let it through */
    PKTD_VERDICT_REPOST = 9   /* put it back into the queue */
};

/*
 * The queues' memory. The daemon only passes the addresses on. The transmit queue
 * itself begins 8 bytes into its pool.
 */
extern uint8_t pktd_tx_queue_pool[25980];
extern uint8_t pktd_rx_queue_pool[25980];
extern uint8_t pktd_rx_wl_pool[25980];

/*
 * The receive callback takes the record, the frame (from its destination MAC) and
 * the frame's length in bytes, and returns a verdict. The library calls it on one
 * thread, one frame at a time. The library owns record and frame; they must stay
 * valid only until the callback returns. The callback relies on these bytes being
 * readable, whatever the length argument is:
 *   - the first 18 of every frame (Ethernet header with one tag);
 *   - for EtherType 0x0800, the first 78;
 *   - for EtherType 0x86DD, the first 58 and as many more as the IPv6 payload length
 *     gives, up to 1,510 in all. At level DEBUG or a more verbose one, the IPv6 dump reads
 *     the whole packet that the payload length gives: at most 18 + 40 + 65,535 bytes.
 * Bytes after the received frame may be quoted to its sender, so they must not
 * contain anybody else's data.
 */
typedef int (*pktd_rx_cb_t)(const st_pktd_shm_queue_entry_data_t* entry, uint8_t* frame, int len);

/*
 * Attach the client to its transmit and receive queues. Called once, on the main
 * thread. The daemon passes 0 and 1; the library defines their meaning. 0: attached
 * until the process ends. Any other value: failure (on Linux a negative errno value).
 */
int pktd_shm_queue_init(const char* client, int, int, void* tx_pool, void* rx_pool);

/*
 * Start the thread that calls `callback` for every received frame until the process
 * ends. The daemon passes 32 and 32, whose meaning the library defines, and no user
 * argument. 0: running. Any other value: failure, with no thread left running.
 */
int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int, int,
                            pktd_rx_cb_t callback, void* user);

/*
 * Fill a record for transmitting `frame` (len bytes, untagged or tagged) on VLAN
 * `vid`. The whole record is written. It may point to the frame's memory only until
 * it is posted. 0, or any other value for failure.
 */
int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len);

/*
 * Post the record, with a frame of len bytes, to the queue (8 bytes into
 * pktd_tx_queue_pool). The library may write *out. 0, or any other value for failure.
 */
int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out);

#ifdef __cplusplus
}
#endif

#endif
