// SPDX-License-Identifier: MIT
// Private namespaces for the test process, so that a daemon under test has a machine to itself.
#ifndef PMTUD_TEST_PRIVATE_MACHINE_H
#define PMTUD_TEST_PRIVATE_MACHINE_H

#include <sys/stat.h>

#include <string>

/// Moves the test process into new mount and network namespaces, with nothing in /run. Throws
/// std::system_error if that is not allowed: the test must not continue without them.
void enterPrivateMachine();

void makeRunReadOnly();

/// The daemon's PID file, as the test finds it.
namespace pid_file {

inline constexpr char kPath[] = "/var/run/pmtud.pid";

bool exists();
std::string content();
void write(const std::string& content);

/// Permission bits.
mode_t mode();

/// Takes a lock (LOCK_EX or LOCK_SH) without waiting, and lets go of it at once.
/// @return whether it was free
bool isFreeFor(int lock);

}  // namespace pid_file

#endif
