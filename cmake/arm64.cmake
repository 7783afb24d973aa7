# SPDX-License-Identifier: MIT
# Debian's arm64: 64-bit ARM Linux.
set(architecture arm64)
set(triplet aarch64-linux-gnu)
set(processor aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
