# SPDX-License-Identifier: MIT
# Installs the systemd unit, with the paths of the daemon and its library in this installation.
#
# The caller sets: source (the unit file), here (a file to write), directory, sbindir, libdir (the
# last three relative to the prefix, or absolute).
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
