# SPDX-License-Identifier: MIT
# Installs the systemd unit, and sees to it that it names the daemon and its libraries where they
# are on this installation's machine.
#
# Set before: source (the unit file), here (a file to write), directory, sbindir, libdir (the last
# three below the prefix, or absolute), exec_paths (where the system's libraries are).
foreach(name IN ITEMS directory sbindir libdir)
  cmake_path(ABSOLUTE_PATH ${name} BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
endforeach()

set(executed "${sbindir}/pmtud" ${exec_paths})
set(has_libdir NO)
foreach(path IN LISTS exec_paths)
  string(REGEX REPLACE "^-" "" path "${path}")
  cmake_path(IS_PREFIX path "${libdir}" is_in_it)
  if(is_in_it)
    set(has_libdir YES)
  endif()
endforeach()
if(NOT has_libdir)
  list(APPEND executed "${libdir}")
endif()
list(JOIN executed " " executed)

file(READ "${source}" unit)
string(REPLACE "\nExecStart=/usr/sbin/pmtud\n" "\nExecStart=${sbindir}/pmtud\n" unit "${unit}")
string(REGEX REPLACE "\nExecPaths=[^\n]*" "\nExecPaths=${executed}" unit "${unit}")
file(WRITE "${here}" "${unit}")
file(INSTALL "${here}" DESTINATION "${directory}")
