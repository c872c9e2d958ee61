# Debian packages, by cpack: one for each library, named after its soname, libpkgdist-dev and
# pkgdist-tools, and the debugging symbols of all but libpkgdist-dev.
set(PKGDIST_PACKAGE_MAINTAINER
    "Seed 1c3cb191 maintainers <maintainers@users.noreply.c-seed-1c3cb191.example>" CACHE STRING
    "Maintainer of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${PKGDIST_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_VENDOR pkgdist)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET pkgdist_platform)
  list(APPEND CPACK_COMPONENTS_ALL platform)
endif()
if(PKGDIST_PROGRAMS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish_packages.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What the system's own libraries are, dpkg-shlibdeps finds out.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(same_version "(= ${PROJECT_VERSION})")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)

# library_package(COMPONENT TARGET PACKAGE): what a package with a library has beside the library:
# for packages that depend on it, and for the cache of the loader.
function(library_package component target package)
  string(TOUPPER ${component} COMPONENT)
  set(shlibs ${PROJECT_BINARY_DIR}/${component}/shlibs)
  get_target_property(prefix ${target} PREFIX)
  if(NOT prefix)
    set(prefix ${CMAKE_SHARED_LIBRARY_PREFIX})
  endif()
  file(WRITE ${shlibs} "${prefix}${target} ${PKGDIST_SOVERSION} ${package} (>= ${PROJECT_VERSION})\n")
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION libs PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA ${debian}/triggers ${shlibs} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_DEBUGINFO_PACKAGE ON PARENT_SCOPE)
endfunction()

library_package(runtime inst_pkgdist_recv ${PKGDIST_RUNTIME_PACKAGE})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "The library with which a program receives files and messages.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libpkgdist-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${PKGDIST_RUNTIME_PACKAGE} ${same_version}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "What programs are built with: headers, examples, the guide.")

if(TARGET pkgdist_platform)
  library_package(platform pkgdist_platform ${PKGDIST_PLATFORM_PACKAGE})
  set(CPACK_COMPONENT_PLATFORM_DESCRIPTION
    "The layer below: event loop, statistics, traces, message codec.")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${PKGDIST_PLATFORM_PACKAGE} ${same_version}")
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    ", ${PKGDIST_PLATFORM_PACKAGE} ${same_version}")
endif()

if(PKGDIST_PROGRAMS)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME pkgdist-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${PKGDIST_RUNTIME_PACKAGE} ${same_version}, ${PKGDIST_PLATFORM_PACKAGE} ${same_version}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${debian}/postinst ${debian}/prerm ${debian}/postrm)
  set(CPACK_DEBIAN_TOOLS_DEBUGINFO_PACKAGE ON)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "The programs: lead, node, and what diagnoses and shows them.")
endif()
include(CPack)
