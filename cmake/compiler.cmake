# Warnings and sanitizers shared by every target of the tree.

add_library(pkgdist_warnings INTERFACE)
target_compile_options(pkgdist_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  # g++ does not mean this by -Wconversion.
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wno-sign-conversion>
  $<$<BOOL:${PKGDIST_WERROR}>:-Werror>)

if(PKGDIST_SANITIZE)
  add_compile_options(-fsanitize=${PKGDIST_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${PKGDIST_SANITIZE})
  # Instrumented standard-library code makes g++ see uninitialised reads, and copies beyond an
  # object's end, that are not there.
  add_compile_options("$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized;-Wno-array-bounds;-Wno-stringop-overflow;-Wno-restrict>")
  if(PKGDIST_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
    # Calls between C and C++ cannot be checked for their types; a C program lacks what does it.
    add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function>)
  endif()
endif()

# The fuzzer's coverage; its main program comes with the targets in tests/fuzz/.
if(PKGDIST_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Paths in assertions and trace catalogues are relative to the tree.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

# pkgdist_precompile(TARGET HEADER...): reading large headers is a third of the time that a test's
# source file takes to compile. A compiler cache does better without, and g++ warns of code of a
# precompiled library header as if it were ours: only where those warnings are off.
function(pkgdist_precompile target)
  if(PKGDIST_SANITIZE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    target_precompile_headers(${target} PRIVATE ${ARGN} <algorithm> <functional> <map> <memory>
      <optional> <string> <vector>)
  endif()
endfunction()
