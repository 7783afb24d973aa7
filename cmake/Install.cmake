# SPDX-License-Identifier: MIT
# What is installed where.
include(GNUInstallDirs)

set(PMTUD_UNIT_DIR lib/systemd/system CACHE STRING
  "Where the systemd unit is installed, below the prefix unless absolute")

# The platform's library is nobody's but the daemon's: in a folder of its own, where the daemon
# looks for it relative to itself, so that the installed tree can be moved.
set(pmtud_private_libdir ${CMAKE_INSTALL_LIBDIR}/pmtud)
install(TARGETS pmtud RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT pmtud)

# For the owner of another platform.
install(FILES
    platform/include/arpd.h
    platform/include/cfg.h
    platform/include/debug_process.h
    platform/include/pktd.h
    src/shm/record/pktd_record.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmtud COMPONENT development)

# The service and the man page are about the platform for stock Linux.
if(NOT TARGET pmtud-platform)
  return()
endif()

file(RELATIVE_PATH to_library /prefix/${CMAKE_INSTALL_SBINDIR} /prefix/${pmtud_private_libdir})
set_target_properties(pmtud PROPERTIES INSTALL_RPATH "$ORIGIN/${to_library}")
install(TARGETS pmtud-platform
  LIBRARY DESTINATION ${pmtud_private_libdir} COMPONENT pmtud NAMELINK_SKIP)

install(CODE "
  set(source \"${PROJECT_SOURCE_DIR}/packaging/pmtud.service\")
  set(here \"${PROJECT_BINARY_DIR}/packaging/pmtud.service\")
  set(directory \"${PMTUD_UNIT_DIR}\")
  set(sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  set(libdir \"${pmtud_private_libdir}\")
" COMPONENT pmtud)
install(SCRIPT packaging/install_unit.cmake COMPONENT pmtud)

install(FILES packaging/pmtud.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT pmtud)
