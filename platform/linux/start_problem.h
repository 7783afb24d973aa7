// SPDX-License-Identifier: MIT
// Why the start failed, and what to do about it.
#ifndef PMTUD_LINUX_START_PROBLEM_H
#define PMTUD_LINUX_START_PROBLEM_H

#include <string>

namespace pmtud_linux {

/// One line for the negative errno value with which attaching the queue failed: cause and remedy.
std::string startProblem(int result);

/// The same for the receive thread.
std::string threadProblem(int result);

}  // namespace pmtud_linux

#endif
