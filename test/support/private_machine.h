// SPDX-License-Identifier: MIT
// A private machine for a test's process, and its commands and network namespaces.
#ifndef PMTUD_TEST_SUPPORT_PRIVATE_MACHINE_H
#define PMTUD_TEST_SUPPORT_PRIVATE_MACHINE_H

#include <functional>
#include <string>

#include "check.h"

namespace machine {

/// Moves the process into private mount and network namespaces, with an empty /run and a /dev
/// without the machine's sockets. Throws std::system_error, for example without root's rights.
void isolate();

/// Runs the shell command and returns what it printed; throws std::runtime_error with that if it
/// fails.
std::string output(const std::string& command);

/// Runs `action` in the network namespace of that name.
void inNetwork(const std::string& name, const std::function<void()>& action);

}  // namespace machine

#endif
