// SPDX-License-Identifier: MIT
// Finds which feature the running kernel lacks, and names it for the operator.
#ifndef PMTUD_LINUX_KERNEL_FEATURES_H
#define PMTUD_LINUX_KERNEL_FEATURES_H

#include <string>

namespace pmtud_linux {

/// The first feature that the rules need and the kernel refuses even on its own, with its module;
/// empty if there is none. Changes nothing.
std::string missingFeature();

}  // namespace pmtud_linux

#endif
