// SPDX-License-Identifier: MIT
// What the running kernel lacks, in an operator's words.
#ifndef PMTUD_LINUX_KERNEL_FEATURES_H
#define PMTUD_LINUX_KERNEL_FEATURES_H

#include <string>

namespace pmtud_linux {

/// The first feature that the rules need and the kernel refuses when asked for it alone, with
/// its module; empty if it refuses none.  Changes nothing.
std::string featureMissing();

}  // namespace pmtud_linux

#endif
