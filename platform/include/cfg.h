/* SPDX-License-Identifier: MIT */
/* The configuration service: the daemon's queries to the switch's configuration. */
#ifndef PMTUD_PLATFORM_CFG_H
#define PMTUD_PLATFORM_CFG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Start-up calls, made once each, in this order, on the main thread before any
 * frame is handled. The daemon ignores their results: after a failure, the
 * queries below must answer "none".
 */

/* Attach to the service. 0, or a negative errno value. */
int cfg_init(void);

/* Register this process under the NUL-terminated name. 0, or a negative errno value. */
int cfg_add_pid(const char* process);

/* Update the process's time zone. 0, or a negative errno value. */
int updateTZ(void);

/* Undo cfg_add_pid; called on the main thread, only if an exception there ends the daemon. */
int cfg_clear_pid(void);

/*
 * Queries, repeated for every frame on the receive thread. Each answers from the
 * configuration at that moment and must not block for long.
 */

/* The VLAN (1 to 4094) via which packets with this egress leave; any other value: none. */
int cfg_vlan_l3_get_dest_vlan(int egress);

/* The MTU of this layer-3 VLAN in bytes, including the IP header; 0: no such VLAN. */
uint32_t cfg_vlan_l3_get_mtu(int vlan);

/* The VLAN whose MTU setting applies to this VLAN; any value outside 1 to 4094: none. */
int cfg_vlan_l3_get_mtu_vlan(int vlan);

#ifdef __cplusplus
}
#endif

#endif
