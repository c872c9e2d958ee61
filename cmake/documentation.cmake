# Manual pages, changelogs and copyright as Debian wants them: compressed, the same bytes whenever it
# is done.
find_program(PKGDIST_GZIP gzip REQUIRED)
set(PKGDIST_COMPRESSED ${PROJECT_BINARY_DIR}/compressed)
add_custom_target(pkgdist_documentation ALL)

# install_compressed(FILE NAME DIRECTORY COMPONENT): FILE as NAME.gz.
function(install_compressed file name directory component)
  set(compressed ${PKGDIST_COMPRESSED}/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${PKGDIST_COMPRESSED}/${component})
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${PKGDIST_GZIP} -9nc ${file} > ${compressed} DEPENDS ${file} VERBATIM)
  string(MAKE_C_IDENTIFIER "compress ${component} ${name}" target)
  add_custom_target(${target} DEPENDS ${compressed})
  add_dependencies(pkgdist_documentation ${target})
  install(FILES ${compressed} DESTINATION ${directory} COMPONENT ${component})
endfunction()

# install_manual(PAGE... COMPONENT component)
function(install_manual)
  cmake_parse_arguments(M "" COMPONENT "" ${ARGN})
  foreach(page IN LISTS M_UNPARSED_ARGUMENTS)
    string(REGEX REPLACE "^.*\\." "" section ${page})
    install_compressed(${PROJECT_SOURCE_DIR}/packaging/man/${page} ${page}
      ${CMAKE_INSTALL_MANDIR}/man${section} ${M_COMPONENT})
  endforeach()
endfunction()

configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/changelog @ONLY)

# What each package has to say about itself.
function(install_package_notes package component)
  install_compressed(${PROJECT_BINARY_DIR}/changelog changelog
    ${CMAKE_INSTALL_DATADIR}/doc/${package} ${component})
  install(FILES packaging/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()

# install_pages(PACKAGE COMPONENT PAGES OTHER OTHER_PAGES): documents. Installed, the pages of a
# package stand side by side, those of the other one in its own directory; links follow.
function(install_pages package component pages other other_pages)
  set(elsewhere ${other_pages})
  list(REMOVE_ITEM elsewhere ${pages})
  foreach(page IN LISTS pages)
    file(READ ${page} text)
    string(REPLACE "](docs/" "](" text "${text}")
    string(REPLACE "](../packaging/schema/" "](../../pkgdist/" text "${text}")
    string(REPLACE "](pkgdist/include/" "](../../../include/" text "${text}")
    foreach(page_elsewhere IN LISTS elsewhere)
      get_filename_component(name ${page_elsewhere} NAME)
      string(REPLACE "](${name}" "](../${other}/${name}" text "${text}")
    endforeach()
    string(REGEX REPLACE "\\]\\((\\.\\./)?examples/" "](../libpkgdist-dev/examples/" text "${text}")
    get_filename_component(name ${page} NAME)
    file(CONFIGURE OUTPUT pages/${package}/${name} CONTENT "${text}" @ONLY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
    install(FILES ${PROJECT_BINARY_DIR}/pages/${package}/${name}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  endforeach()
endfunction()
