# SPDX-License-Identifier: MIT
# Installs the files, and builds Debian packages from them.
include(GNUInstallDirs)

set(PMTUD_UNIT_DIR lib/systemd/system CACHE STRING
  "Where the systemd unit is installed, below the prefix unless absolute")

# pmtud_compressed(SOURCE NAME): builds NAME.gz in the build folder, without a time stamp, so that
# it is reproducible.
find_program(PMTUD_GZIP gzip REQUIRED)
function(pmtud_compressed source name)
  set(result ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(OUTPUT ${result}
    COMMAND ${PMTUD_GZIP} -9nc ${source} > ${result}
    DEPENDS ${source} VERBATIM)
  add_custom_target(pmtud-${name} ALL DEPENDS ${result})
endfunction()

# The platform's library is private to the daemon, so it gets its own folder. The daemon looks for
# it relative to itself, so that the installed tree can be moved.
set(pmtud_private_libdir ${CMAKE_INSTALL_LIBDIR}/pmtud)
install(TARGETS pmtud RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT pmtud)

# For porting to another platform.
install(FILES
    platform/include/arpd.h
    platform/include/cfg.h
    platform/include/debug_process.h
    platform/include/pktd.h
    src/shm/record/pktd_record.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pmtud COMPONENT development)

# Service, man page and packages are only for the platform for stock Linux.
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

pmtud_compressed(${PROJECT_SOURCE_DIR}/packaging/pmtud.8 pmtud.8)
install(FILES ${PROJECT_BINARY_DIR}/packaging/pmtud.8.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT pmtud)

# What only a Debian package contains.
option(PMTUD_DEBIAN_FILES "Install what Debian requires of a package: copyright, changelog, overrides" OFF)
if(PMTUD_DEBIAN_FILES)
  set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
  pmtud_compressed(${debian}/changelog changelog.Debian)
  foreach(package IN ITEMS pmtud pmtud-dev)
    set(component ${package})
    if(package STREQUAL pmtud-dev)
      set(component development)
    endif()
    install(FILES ${debian}/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
    install(FILES ${debian}/${package}.lintian-overrides RENAME ${package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endforeach()
  install(FILES docs/porting.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pmtud-dev COMPONENT development)
  install(FILES README.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pmtud COMPONENT pmtud)
endif()

set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The pmtud authors <pmtud@users.noreply.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "answer packets that are too large for their egress VLAN")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL pmtud development)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_PMTUD_PACKAGE_NAME pmtud)
set(CPACK_DEBIAN_PMTUD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PMTUD_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PMTUD_DESCRIPTION [[A packet that is too large for its egress VLAN cannot be forwarded. If nobody
tells its sender, connections hang forever: the path-MTU black hole. This
daemon tells the sender, with ICMP "fragmentation needed" or ICMPv6 "Packet
Too Big".
.
It serves the VLAN interfaces that are named bcm0.N, selects the oversized
packets with its own nftables rules, and needs no configuration.]])
set(CPACK_DEBIAN_PMTUD_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
  ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PMTUD_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME pmtud-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION [[pmtud answers packets that are too large for their egress VLAN. Whatever
depends on the switch that it runs on is in a separate library.
.
These headers declare what such a library must supply.]])
include(CPack)
