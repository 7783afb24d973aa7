# SPDX-License-Identifier: MIT
# Debian's i386: 32-bit x86 Linux.
set(architecture i386)
set(triplet i386-linux-gnu)
set(processor i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
