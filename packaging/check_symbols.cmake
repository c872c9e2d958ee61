# Compares the dynamic symbols that LIBRARY defines, with their versions, with those of LIST:
#   cmake -DNM=nm -DLIBRARY=file.so -DLIST=symbols/NAME.txt [-DUPDATE=ON] -P check_symbols.cmake
# UPDATE writes the list instead.
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
                OUTPUT_VARIABLE table RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${result}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${table}")
set(found)
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-f]+ ([A-Za-z]) ([^@]+)(@@?(.+))?$")
    message(FATAL_ERROR "not understood: ${line}")
  endif()
  set(kind ${CMAKE_MATCH_1})
  set(symbol "${CMAKE_MATCH_2} ${CMAKE_MATCH_4}")
  if(kind STREQUAL "A" AND NOT CMAKE_MATCH_3)
    continue() # the definition of a version
  elseif(kind STREQUAL "T")
    list(APPEND found "function ${symbol}")
  elseif(kind MATCHES "^[BDR]$")
    list(APPEND found "data ${symbol}")
  else()
    list(APPEND found "kind ${kind} ${symbol}")
  endif()
endforeach()
list(SORT found)

if(UPDATE)
  list(JOIN found "\n" text)
  file(WRITE ${LIST} "${text}\n")
  return()
endif()

file(STRINGS ${LIST} wanted)
if(NOT wanted)
  message(FATAL_ERROR "${LIST} is empty")
endif()
set(missing ${wanted})
list(REMOVE_ITEM missing ${found})
set(surplus ${found})
list(REMOVE_ITEM surplus ${wanted})
if(missing OR surplus)
  list(JOIN missing "\n  " missing)
  list(JOIN surplus "\n  " surplus)
  message(FATAL_ERROR "${LIBRARY} exports other symbols than ${LIST}.\n"
    "removed, which breaks programs that use them and needs a new SOVERSION:\n  ${missing}\n"
    "added:\n  ${surplus}\n"
    "If this is meant, write the list anew:\n"
    "  cmake -DNM=${NM} -DLIBRARY=${LIBRARY} -DLIST=${LIST} -DUPDATE=ON -P ${CMAKE_CURRENT_LIST_FILE}\n")
endif()
