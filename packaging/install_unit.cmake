# SPDX-License-Identifier: MIT
# Installs the systemd unit with the paths at which this installation has the daemon and its
# libraries.
#
# The caller sets source (the unit file), build (the build folder), directory, sbindir and libdir
# (below the prefix, or absolute), and exec_paths (where the system's libraries are).

# CMake passes the prefix without its last slash: the root folder is empty here. A relative prefix is
# below the folder that cmake was started in.
set(prefix "${CMAKE_INSTALL_PREFIX}")
if(prefix STREQUAL "")
  set(prefix /)
endif()
cmake_path(ABSOLUTE_PATH prefix BASE_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}" NORMALIZE)
foreach(name IN ITEMS directory sbindir libdir)
  cmake_path(ABSOLUTE_PATH ${name} BASE_DIRECTORY "${prefix}" NORMALIZE)
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

# As systemd reads a path: % starts a specifier, and a space ends an unquoted word.
set(start "${sbindir}/pmtud")
string(REPLACE "%" "%%" start "${start}")
string(REPLACE "%" "%%" executed "${executed}")
list(TRANSFORM executed REPLACE "^.* .*$" "\"\\0\"")
list(TRANSFORM start REPLACE "^.* .*$" "\"\\0\"")
list(JOIN executed " " executed)

file(READ "${source}" unit)
string(REPLACE "\nExecStart=/usr/sbin/pmtud\n" "\nExecStart=${start}\n" unit "${unit}")
string(REGEX REPLACE "\nExecPaths=[^\n]*" "\nExecPaths=${executed}" unit "${unit}")
# These folders would be empty for the service.
if(sbindir MATCHES "^/(home|root|run/user)/")
  string(REPLACE "\nProtectHome=yes\n" "\nProtectHome=read-only\n" unit "${unit}")
endif()
# In a private folder: another installation from this build may be writing its unit at this moment.
string(RANDOM LENGTH 16 name)
set(folder "${build}/packaging/${name}")
file(WRITE "${folder}/pmtud.service" "${unit}")
file(INSTALL "${folder}/pmtud.service" DESTINATION "${directory}")
file(REMOVE_RECURSE "${folder}")
