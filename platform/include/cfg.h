/* SPDX-License-Identifier: MIT */
/* The configuration service: what the daemon asks of the switch's configuration. */
#ifndef PMTUD_PLATFORM_CFG_H
#define PMTUD_PLATFORM_CFG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Start-up calls, made once each and in this order on the main thread before
 * any frame is handled.  The daemon does not look at their results: an
 * implementation that fails must leave the calls below answering "nothing".
 */

/* Attach to the service.  0, or a negative errno value. */
int cfg_init(void);

/* Register this process under the NUL-terminated name.  0, or a negative errno value. */
int cfg_add_pid(const char* process);

/* Bring the process's time zone up to date.  0, or a negative errno value. */
int updateTZ(void);

/* Withdraw the registration of cfg_add_pid; called on the main thread on the way out. */
int cfg_clear_pid(void);

/*
 * Questions, asked afresh for every frame on the receive thread.  Each answers
 * from the configuration as it is at that moment and must not block for long.
 */

/* The VLAN (1 to 4094) by which this egress leaves; any other value: unknown egress. */
int cfg_vlan_l3_get_dest_vlan(int egress);

/* The MTU of this layer-3 VLAN in bytes, IP header included; 0: no such VLAN. */
uint32_t cfg_vlan_l3_get_mtu(int vlan);

/* The VLAN whose MTU setting holds for this VLAN; any value outside 1 to 4094: none. */
int cfg_vlan_l3_get_mtu_vlan(int vlan);

#ifdef __cplusplus
}
#endif

#endif
