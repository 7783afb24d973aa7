// SPDX-License-Identifier: MIT
// Finds which feature the running kernel lacks, and names it for the operator.
#ifndef PMTUD_LINUX_KERNEL_FEATURES_H
#define PMTUD_LINUX_KERNEL_FEATURES_H

#include <string>

namespace pmtud_linux {

/// The first feature that the rules need and the kernel lacks, with the name of its module; empty
/// if it lacks none. Changes nothing.
std::string missingFeature();

}  // namespace pmtud_linux

#endif
