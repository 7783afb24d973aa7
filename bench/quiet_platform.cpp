// SPDX-License-Identifier: MIT
// The benchmarks' platform: constant answers, and a debug process that accepts every line at no
// cost. The Linux platform's functions send ICMPv6.
#include "cfg.h"
#include "debug_process.h"
#include "pktd.h"

extern "C" {

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int pktd_shm_queue_init(const char*, int, int, void*, void*) { return 0; }

int pktd_shm_rx_thread_init(const char*, void*, void*, int, int, pktd_rx_cb_t, void*) { return 0; }

int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t*, int, int, const uint8_t*,
                                          size_t) {
    return 0;
}

int shm_data_entry_post(void*, st_pktd_shm_queue_entry_data_t*, size_t, uint32_t*) { return 0; }

int cfg_vlan_l3_get_dest_vlan(int) { return 20; }

uint32_t cfg_vlan_l3_get_mtu(int) { return 1400; }

int cfg_vlan_l3_get_mtu_vlan(int vlan) { return vlan; }

int debug_process(uint32_t, const char*, ...) { return 0; }

}  // extern "C"
