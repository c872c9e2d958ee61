# Warnings and sanitizers shared by every target of the tree.

add_library(pkgdist_warnings INTERFACE)
target_compile_options(pkgdist_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${PKGDIST_WERROR}>:-Werror>)

if(PKGDIST_SANITIZE)
  add_compile_options(-fsanitize=${PKGDIST_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${PKGDIST_SANITIZE})
  # Instrumented standard-library code makes g++ see uninitialised reads that are not there.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  if(PKGDIST_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# The fuzzer's coverage; its main program comes with the targets in tests/fuzz/.
if(PKGDIST_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Paths in assertions and trace catalogues are relative to the tree.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
