# What is installed, in three components: runtime, development, tools. Nothing that is installed
# holds a path of the build, and all of it may be moved together: programs find the libraries, and
# pkg-config and CMake the headers, relative to where they stand.
include(CMakePackageConfigHelpers)

set(PKGDIST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/pkgdist)
set(libraries inst_pkgdist_recv)
if(TARGET pkgdist_platform)
  list(APPEND libraries pkgdist_platform)
endif()
set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(inst_pkgdist_recv PROPERTIES EXPORT_NAME recv)
set_target_properties(pkgdist_wire PROPERTIES EXPORT_NAME headers)
install(TARGETS ${libraries} pkgdist_wire EXPORT pkgdistTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development)

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
install(FILES docs/architecture.md docs/integration.md docs/rationale.md docs/wire-format.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libpkgdist-dev COMPONENT development)

install(FILES packaging/man/pkgdist.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT development)

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
    install(FILES packaging/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
      COMPONENT tools)
  endforeach()
  install(FILES packaging/man/pkgdist.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT tools)
  install(FILES tools/wireshark/pkgdist.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgdist/wireshark
    COMPONENT tools)
  install(FILES docs/start.md docs/operations.md docs/releases.md docs/threat-model.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pkgdist-tools
    COMPONENT tools)
endif()
