# The platform layer under the receive library: ours, or one of the integrator's.
set(PKGDIST_PLATFORM bundled CACHE STRING
    "Platform layer: 'bundled', or 'external' for a library of your own; then only the receive library is built")
set(PKGDIST_PLATFORM_LIBRARY "" CACHE STRING
    "External platform: its library, or several; files or linker options")
set(PKGDIST_PLATFORM_INCLUDE_DIR "" CACHE PATH
    "External platform: the directory with its platform/*.h; empty for the headers of this tree")
option(PKGDIST_PLATFORM_CODEC "The external platform has the message codec (qidl_*) too" OFF)

set(PKGDIST_PLATFORM_HEADERS ${PROJECT_SOURCE_DIR}/platform/include)
if(PKGDIST_PLATFORM STREQUAL "bundled")
  set(PKGDIST_PLATFORM_LINK pkgdist_platform)
elseif(PKGDIST_PLATFORM STREQUAL "external")
  set(PKGDIST_PLATFORM_LINK ${PKGDIST_PLATFORM_LIBRARY})
  if(NOT PKGDIST_PLATFORM_LINK)
    message(FATAL_ERROR "PKGDIST_PLATFORM=external needs PKGDIST_PLATFORM_LIBRARY")
  endif()
  if(PKGDIST_PLATFORM_INCLUDE_DIR)
    set(PKGDIST_PLATFORM_HEADERS ${PKGDIST_PLATFORM_INCLUDE_DIR})
  endif()
  # The lead, the programs and the tests stand on our platform layer.
  set(PKGDIST_TESTS OFF)
  set(PKGDIST_TOOLS OFF)
  set(PKGDIST_BENCH OFF)
else()
  message(FATAL_ERROR "PKGDIST_PLATFORM: '${PKGDIST_PLATFORM}' is neither 'bundled' nor 'external'")
endif()
