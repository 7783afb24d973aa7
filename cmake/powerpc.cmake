# The target: 32-bit big-endian PowerPC Linux, with Debian's cross compiler; what is built runs
# here under qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

set(CMAKE_SYSROOT "$ENV{PMTUD_SYSROOT}")
if(CMAKE_SYSROOT)
  set(target_root ${CMAKE_SYSROOT})
else()
  set(target_root /usr/powerpc-linux-gnu)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L ${target_root})

# Libraries and headers come from the target's root alone.
set(CMAKE_FIND_ROOT_PATH ${target_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
