# SPDX-License-Identifier: MIT
# Builds for the target, 32-bit big-endian PowerPC Linux, with Debian's cross compiler. The programs
# run on the build machine under qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
foreach(tool IN ITEMS powerpc-linux-gnu-g++:g++-powerpc-linux-gnu qemu-ppc:qemu-user)
  string(REPLACE ":" ";" tool ${tool})
  list(GET tool 0 program)
  list(GET tool 1 package)
  find_program(PMTUD_FOUND_${program} ${program})
  if(NOT PMTUD_FOUND_${program})
    message(FATAL_ERROR "${program} is missing: apt-get install ${package}, or script/bootstrap target")
  endif()
endforeach()
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
# The target's time_t has 32 bits. Debian 13's compiler would make it 64 bits wide.
set(CMAKE_C_FLAGS_INIT "-U_TIME_BITS -U_FILE_OFFSET_BITS")
set(CMAKE_CXX_FLAGS_INIT "-U_TIME_BITS -U_FILE_OFFSET_BITS")

set(CMAKE_SYSROOT "$ENV{PMTUD_SYSROOT}")
if(CMAKE_SYSROOT)
  set(target_root ${CMAKE_SYSROOT})
else()
  set(target_root /usr/powerpc-linux-gnu)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L ${target_root})

# Libraries and headers come only from the target's root.
set(CMAKE_FIND_ROOT_PATH ${target_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
