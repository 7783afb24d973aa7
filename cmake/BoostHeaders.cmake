# SPDX-License-Identifier: MIT
# Defines Boost::headers, even for a target without its own Boost.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(Boost CONFIG REQUIRED COMPONENTS headers)
  return()
endif()

# Boost's headers do not depend on the machine, but share a folder with headers that do. A separate
# folder with a link to them keeps the build machine's other headers out.
find_path(PMTUD_BOOST_INCLUDE_DIR boost/version.hpp NO_CMAKE_FIND_ROOT_PATH REQUIRED
  DOC "The folder that contains boost/; only boost/ is used")
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost-headers)
file(CREATE_LINK ${PMTUD_BOOST_INCLUDE_DIR}/boost ${PROJECT_BINARY_DIR}/boost-headers/boost
  SYMBOLIC)
add_library(Boost::headers INTERFACE IMPORTED)
target_include_directories(Boost::headers INTERFACE ${PROJECT_BINARY_DIR}/boost-headers)
