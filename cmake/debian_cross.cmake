# SPDX-License-Identifier: MIT
# Builds for another of Debian's architectures, with its cross compiler and the libraries of that
# architecture that dpkg has installed next to this machine's.
#
# The caller sets `triplet`, which names the machine in the names of the compiler and of the libraries'
# folder, and `processor`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})

# The compiler's name contains i686, the folder's i386.
string(REPLACE "i386" "i686" tools ${triplet})
find_program(PMTUD_FOUND_${tools}-g++ ${tools}-g++)
if(NOT PMTUD_FOUND_${tools}-g++ OR NOT EXISTS /usr/lib/${triplet}/libnftables.so)
  message(FATAL_ERROR "compiler or libraries for ${triplet} are missing: script/bootstrap cross")
endif()
set(CMAKE_C_COMPILER ${tools}-gcc)
set(CMAKE_CXX_COMPILER ${tools}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)
