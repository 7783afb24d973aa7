/* SPDX-License-Identifier: MIT */
/* The debug process: where ungated diagnostic lines go. */
#ifndef PMTUD_PLATFORM_DEBUG_PROCESS_H
#define PMTUD_PLATFORM_DEBUG_PROCESS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Hand over one line, printf-style, for the module numbered `channel`.  Called
 * several times a frame on the receive thread, so it must not block; it must be
 * callable from any thread.  The line carries no line end.  The result is 0 where the
 * line was taken and a negative errno value where it was lost; the daemon ignores it.
 */
int debug_process(uint32_t channel, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
