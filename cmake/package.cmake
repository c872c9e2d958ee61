# Debian packages, by cpack: libpkgdistN (N is the SOVERSION), libpkgdist-dev, pkgdist-tools.
set(PKGDIST_PACKAGE_CONTACT "pkgdist <root@localhost>" CACHE STRING "Maintainer of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${PKGDIST_PACKAGE_CONTACT})
set(CPACK_PACKAGE_VENDOR pkgdist)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What the system's own libraries are, dpkg-shlibdeps finds out.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(runtime libpkgdist${PKGDIST_SOVERSION})
set(same_version "${runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The receive library.\n\
 Receives the files and messages that a lead multicasts to the nodes of a cluster.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libpkgdist-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_version}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "What is needed to build programs with the receive library.\n\
 Headers for C11 and C++20, pkg-config and CMake files, examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME pkgdist-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${same_version}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "The programs.\n\
 The lead, which multicasts files and messages, a node that receives them, and two programs that show\n\
 what receiving processes have counted and logged.")
include(CPack)
