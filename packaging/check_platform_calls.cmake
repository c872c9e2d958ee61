# What LIBRARY takes from the platform library, whose symbols are in LIST, it takes under names that
# no program has by accident. The variables of platform/inst_common.h alone belong to the process.
#   cmake -DNM=nm -DLIBRARY=file.so -DLIST=symbols/libpkgdist_platform.txt -P check_platform_calls.cmake
cmake_minimum_required(VERSION 3.25)
set(of_the_process atomic_mutex g_inst_common_debug_prefix g_inst_common_debug_verbosity_level)
execute_process(COMMAND ${NM} -D --undefined-only ${LIBRARY}
                OUTPUT_VARIABLE table RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${result}")
endif()
file(STRINGS ${LIST} exported)
list(TRANSFORM exported REPLACE "^[a-z]+ ([^ ]+) .*$" "\\1")
string(REGEX MATCHALL "[Uw] [^\n@]+" used "${table}")
list(TRANSFORM used REPLACE "^[Uw] " "")

set(plain)
set(protected 0)
foreach(name IN LISTS used)
  if(NOT name IN_LIST exported OR name IN_LIST of_the_process)
    continue()
  elseif(name MATCHES "^pkgdist_platform_")
    math(EXPR protected "${protected} + 1")
  else()
    list(APPEND plain ${name})
  endif()
endforeach()
if(plain OR protected EQUAL 0)
  list(JOIN plain "\n  " plain)
  message(FATAL_ERROR "${protected} names of the platform are used under their second name, and these "
    "under their plain one, which a program may have too; see platform/symbol_names.h:\n  ${plain}")
endif()
