/* SPDX-License-Identifier: MIT */
/* The debug process: receives diagnostic lines, whatever the reporting level. */
#ifndef PMTUD_PLATFORM_DEBUG_PROCESS_H
#define PMTUD_PLATFORM_DEBUG_PROCESS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Log one line, printf-style, for module number `channel`. The daemon calls it
 * several times per frame on the receive thread, so it must not block. It must be
 * callable from any thread. The text has no line ending. Returns 0 if the line was
 * accepted and a negative errno value if it was lost; the daemon ignores the result.
 */
int debug_process(uint32_t channel, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif
