# SPDX-License-Identifier: MIT
# Installs the systemd unit, and sees to it that it names the daemon and its library where they
# are below the prefix of this installation.
#
# Set before: source (the unit file), here (a file to write), directory, sbindir, libdir (the last
# three below the prefix, or absolute).
foreach(name IN ITEMS directory sbindir libdir)
  cmake_path(ABSOLUTE_PATH ${name} BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
endforeach()

file(READ "${source}" unit)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  string(REPLACE "/usr/sbin/pmtud" "${sbindir}/pmtud" unit "${unit}")
  string(REPLACE "\nExecPaths=" "\nExecPaths=${libdir} " unit "${unit}")
endif()
file(WRITE "${here}" "${unit}")
file(INSTALL "${here}" DESTINATION "${directory}")
