# SPDX-License-Identifier: MIT
# Installs the program, its library, the headers, the unit and the man page.
include(GNUInstallDirs)

set(PMTUD_UNIT_DIR lib/systemd/system CACHE STRING
  "Where the systemd unit is installed, below the prefix unless absolute")
set(PMTUD_EXEC_PATHS /usr/lib -/usr/lib64 CACHE STRING
  "Where the system's shared libraries are, for the unit's ExecPaths=; a leading - if it may be missing")

# Only the daemon uses the platform's library, so the library has a private folder. The daemon looks
# for it relative to its own location, so that the installed tree can be moved.
set(pmtud_private_libdir ${CMAKE_INSTALL_LIBDIR}/pmtud)
install(TARGETS pmtud RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT pmtud)
install(FILES LICENSE docs/operating.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT pmtud)

# For the owner of another platform.
install(FILES
    platform/include/arpd.h
    platform/include/cfg.h
    platform/include/debug_process.h
    platform/include/pktd.h
    src/shm/record/pktd_record.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmtud COMPONENT development)

# pmtud_path_from(RESULT PREFIX FROM TO)
# The path by which a file in FROM refers to TO: PREFIX and a relative path, so that the tree can be
# moved. An absolute path if FROM or TO is absolute.
function(pmtud_path_from result prefix from to)
  if(IS_ABSOLUTE "${from}" OR IS_ABSOLUTE "${to}")
    cmake_path(ABSOLUTE_PATH to BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
    set(${result} "${to}" PARENT_SCOPE)
  else()
    file(RELATIVE_PATH way "/prefix/${from}" "/prefix/${to}")
    set(${result} "${prefix}/${way}" PARENT_SCOPE)
  endif()
endfunction()

# Headers are the same on every machine.
set(pmtud_pkgconfigdir ${CMAKE_INSTALL_DATADIR}/pkgconfig)
pmtud_path_from(PMTUD_HEADERS "\${pcfiledir}"
  ${pmtud_pkgconfigdir} ${CMAKE_INSTALL_INCLUDEDIR}/pmtud)
configure_file(packaging/pmtud.pc.in packaging/pmtud.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/pmtud.pc
  DESTINATION ${pmtud_pkgconfigdir} COMPONENT development)

# The service and the man page are about the platform for stock Linux.
if(NOT TARGET pmtud-platform)
  return()
endif()

pmtud_path_from(rpath "$ORIGIN" ${CMAKE_INSTALL_SBINDIR} ${pmtud_private_libdir})
set_target_properties(pmtud PROPERTIES INSTALL_RPATH "${rpath}")
install(TARGETS pmtud-platform
  LIBRARY DESTINATION ${pmtud_private_libdir} COMPONENT pmtud NAMELINK_SKIP)

install(CODE "
  set(source \"${PROJECT_SOURCE_DIR}/packaging/pmtud.service\")
  set(build \"${PROJECT_BINARY_DIR}\")
  set(directory \"${PMTUD_UNIT_DIR}\")
  set(sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  set(libdir \"${pmtud_private_libdir}\")
  set(exec_paths \"${PMTUD_EXEC_PATHS}\")
" COMPONENT service)
install(SCRIPT packaging/install_unit.cmake COMPONENT service)

install(FILES packaging/pmtud.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT pmtud)
