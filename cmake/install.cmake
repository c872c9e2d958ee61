# What is installed, in four components, a package each: platform, runtime (the receive library),
# development, tools. Nothing that is installed
# holds a path of the build, and all of it may be moved together: programs find the libraries, and
# pkg-config and CMake the headers, relative to where they stand.
include(CMakePackageConfigHelpers)
include(cmake/documentation.cmake)

# Packages are named after the sonames in them.
set(PKGDIST_PLATFORM_PACKAGE libpkgdist-platform${PKGDIST_SOVERSION})
set(PKGDIST_RUNTIME_PACKAGE lib-inst-pkgdist-recv${PKGDIST_SOVERSION})

set(PKGDIST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/pkgdist)

# install_library(TARGET COMPONENT PACKAGE)
function(install_library target component package)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${target} EXPORT pkgdistTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT ${component} NAMELINK_COMPONENT development)
  install_package_notes(${package} ${component})
endfunction()

set_target_properties(inst_pkgdist_recv PROPERTIES EXPORT_NAME recv)
install_library(inst_pkgdist_recv runtime ${PKGDIST_RUNTIME_PACKAGE})
if(TARGET pkgdist_platform)
  install_library(pkgdist_platform platform ${PKGDIST_PLATFORM_PACKAGE})
endif()
set_target_properties(pkgdist_wire PROPERTIES EXPORT_NAME headers)
install(TARGETS pkgdist_wire EXPORT pkgdistTargets)

install(DIRECTORY pkgdist/include/pkgdist DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
if(NOT PKGDIST_PLATFORM_INCLUDE_DIR)
  install(DIRECTORY platform/include/platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development)
endif()

install(EXPORT pkgdistTargets NAMESPACE pkgdist:: DESTINATION ${PKGDIST_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(cmake/pkgdistConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pkgdistConfig.cmake INSTALL_DESTINATION ${PKGDIST_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pkgdistConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pkgdistConfig.cmake
  ${PROJECT_BINARY_DIR}/pkgdistConfigVersion.cmake
  DESTINATION ${PKGDIST_CMAKE_DIR} COMPONENT development)

file(RELATIVE_PATH PKGDIST_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" PKGDIST_PC_TO_PREFIX "${PKGDIST_PC_TO_PREFIX}")
if(TARGET pkgdist_platform)
  set(PKGDIST_PC_PLATFORM " -lpkgdist_platform")
endif()
configure_file(cmake/pkgdist.pc.in ${PROJECT_BINARY_DIR}/pkgdist.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pkgdist.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libpkgdist-dev
  COMPONENT development)
set(PKGDIST_DEVELOPMENT_PAGES docs/architecture.md docs/glossary.md docs/integration.md
  docs/promises.md docs/rationale.md docs/testing.md docs/wire-format.md)
set(PKGDIST_TOOLS_PAGES README.md docs/glossary.md docs/start.md docs/operations.md
  docs/performance.md docs/threat-model.md docs/events.md docs/releases.md)
install_pages(libpkgdist-dev development "${PKGDIST_DEVELOPMENT_PAGES}"
  pkgdist-tools "${PKGDIST_TOOLS_PAGES}")

install_manual(pkgdist.3 COMPONENT development)
install_package_notes(libpkgdist-dev development)

if(PKGDIST_PROGRAMS)
  file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${PKGDIST_PROGRAMS} PROPERTIES INSTALL_RPATH "$ORIGIN/${from_bin}")
  install(TARGETS ${PKGDIST_PROGRAMS} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES packaging/systemd/pkgdist-lead.service packaging/systemd/pkgdist-node.service
    DESTINATION lib/systemd/system COMPONENT tools)
  install(FILES packaging/sysctl/60-pkgdist.conf DESTINATION lib/sysctl.d COMPONENT tools)
  foreach(program IN LISTS PKGDIST_PROGRAMS)
    install(FILES packaging/completion/pkgdist.bash RENAME ${program}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
    install_manual(${program}.1 COMPONENT tools)
  endforeach()
  install_manual(pkgdist.7 COMPONENT tools)
  install_package_notes(pkgdist-tools tools)
  install(FILES packaging/prometheus/pkgdist.rules.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgdist/prometheus COMPONENT tools)
  install(FILES packaging/grafana/pkgdist.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgdist/grafana COMPONENT tools)
  install(FILES tools/wireshark/pkgdist.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgdist/wireshark
    COMPONENT tools)
  install(FILES packaging/schema/events.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgdist
    COMPONENT tools)
  install_pages(pkgdist-tools tools "${PKGDIST_TOOLS_PAGES}"
    libpkgdist-dev "${PKGDIST_DEVELOPMENT_PAGES}")
  install(DIRECTORY docs/pictures DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pkgdist-tools
    COMPONENT tools)
  install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pkgdist-tools
    COMPONENT tools)
endif()
