// SPDX-License-Identifier: MIT
// The platform seam's headers, with everything they declare exported from the shared library.
// Always include this instead of the headers themselves.
#ifndef PMTUD_LINUX_SEAM_H
#define PMTUD_LINUX_SEAM_H

#pragma GCC visibility push(default)
#include "arpd.h"
#include "cfg.h"
#include "debug_process.h"
#include "pktd.h"
#pragma GCC visibility pop

#endif
