# SPDX-License-Identifier: MIT
# Boost::headers, also for a target that has no Boost of its own.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(Boost CONFIG REQUIRED COMPONENTS headers)
  return()
endif()

# Boost's headers know no machine, but they lie among the build machine's own: a link of their
# own lets them in and keeps the others out.
find_path(PMTUD_BOOST_INCLUDE_DIR boost/version.hpp NO_CMAKE_FIND_ROOT_PATH REQUIRED
  DOC "Where boost/ lies; only that folder is used")
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost-headers)
file(CREATE_LINK ${PMTUD_BOOST_INCLUDE_DIR}/boost ${PROJECT_BINARY_DIR}/boost-headers/boost
  SYMBOLIC)
add_library(Boost::headers INTERFACE IMPORTED)
target_include_directories(Boost::headers INTERFACE ${PROJECT_BINARY_DIR}/boost-headers)
