# SPDX-License-Identifier: MIT
# Builds for another Debian architecture, with its cross compiler and the libraries that
# script/sysroot has unpacked.
#
# The caller sets architecture (Debian's name), triplet (the name of its library folders) and
# processor.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})

# The compiler is named after i686, the library folder after i386.
string(REPLACE "i386" "i686" tools ${triplet})
find_program(PMTUD_FOUND_${tools}-g++ ${tools}-g++)
if(NOT PMTUD_FOUND_${tools}-g++)
  message(FATAL_ERROR "${tools}-g++ is missing: script/bootstrap cross")
endif()
set(CMAKE_C_COMPILER ${tools}-gcc)
set(CMAKE_CXX_COMPILER ${tools}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${architecture}
  ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig/libnftables.pc)
  message(FATAL_ERROR "the libraries for ${architecture} are missing: script/sysroot ${architecture}")
endif()

# Libraries and headers come only from the sysroot and from the compiler.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  ${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
