# SPDX-License-Identifier: MIT
# Hardens optimised builds against memory errors, with what compiler and linker offer.
#
# FORTIFY needs optimisation, and sanitizer builds have their own checks.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

set(optimised OFF)
if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$" OR CMAKE_CXX_FLAGS MATCHES "-O[123s]")
  set(optimised ON)
endif()
if(optimised AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize|--coverage")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
  # Not every compiler supports these on every machine.
  foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "PMTUD_HAS${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
      add_compile_options(${flag})
    endif()
  endforeach()
endif()
