# Run by cpack when the packages are made, for what cpack does otherwise than Debian wants it:
#   libraries             it has scripts call ldconfig, for which a trigger is enough, and cannot say
#                         that those of several architectures may stand side by side
#   debugging symbols     checksums name files by where they were built, and nothing says who owns the
#                         package
function(add_to_control tree lines)
  file(READ ${tree}/DEBIAN/control control)
  string(STRIP "${control}" control)
  file(WRITE ${tree}/DEBIAN/control "${control}\n${lines}\n")
endfunction()

function(finish_library tree)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  add_to_control(${tree} "Multi-Arch: same")
endfunction()

function(write_checksums tree)
  file(GLOB_RECURSE files RELATIVE ${tree} ${tree}/usr/*)
  set(sums)
  foreach(file IN LISTS files)
    file(MD5 ${tree}/${file} sum)
    string(APPEND sums "${sum}  ${file}\n")
  endforeach()
  file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
endfunction()

# OF: the package that the symbols are of; it has copyright and changelog of both.
function(finish_debugging_symbols tree of)
  write_checksums(${tree})
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${of} ${tree}/usr/share/doc/${of}-dbgsym SYMBOLIC)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(file ${package} NAME)
  set(tree ${package}.tree)
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  if(file MATCHES "^([^_]+)-dbgsym_")
    finish_debugging_symbols(${tree} ${CMAKE_MATCH_1})
  elseif(file MATCHES "^lib[^_]*[0-9]_")
    finish_library(${tree})
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
