# Checks the dynamic symbol table of libcpic.so against the two contracts it
# has to honour:
#   - it exports exactly the names of libcpic.map that the library defines
#     (no internal routine leaks out, no listed name that exists is hidden);
#   - it defines none of the node-services names of snanode.h and imports
#     every one of them (a library that defines them itself could not be put
#     in front of another node).
# Usage: cmake -DNM=... -DLIBRARY=libcpic.so -DARCHIVE=libcpic_static.a
#              -DMAP=libcpic.map -DNODE_HEADER=snanode.h -P check_symbols.cmake

function(symbols out)
  execute_process(COMMAND ${NM} ${ARGN} OUTPUT_VARIABLE text RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${NM} ${ARGN} failed")
  endif()
  string(REPLACE "\n" ";" lines "${text}")
  set(names)
  foreach(line IN LISTS lines)
    # "<address> <type> <name>" or "<type> <name>" for undefined ones
    if(line MATCHES "^ *([0-9a-fA-F]+ +)?([A-Za-z]) +([^ @]+)")
      list(APPEND names "${CMAKE_MATCH_2} ${CMAKE_MATCH_3}")
    endif()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# The names of the "<type> <name>" entries whose type is one of `types`.
function(names_of_types out types)
  set(names)
  foreach(entry IN LISTS ARGN)
    if(entry MATCHES "^([A-Za-z]) (.*)$")
      string(FIND "${types}" "${CMAKE_MATCH_1}" at)
      if(at GREATER -1)
        list(APPEND names ${CMAKE_MATCH_2})
      endif()
    endif()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# Names in the global section of the version script.
file(READ ${MAP} map_text)
string(REGEX REPLACE "/\\*[^*]*\\*/" "" map_text "${map_text}")
string(REGEX MATCH "global:(.*)local:" _ "${map_text}")
string(REGEX MATCHALL "[A-Za-z_][A-Za-z_0-9]*" map_names "${CMAKE_MATCH_1}")

# Node-services names declared in snanode.h: functions and data.
file(STRINGS ${NODE_HEADER} node_lines REGEX "^SNANODE_API ")
set(node_names)
foreach(line IN LISTS node_lines)
  # Separate tests: if() evaluates both sides of an OR, and the failing
  # match would clear CMAKE_MATCH_1.
  if(line MATCHES "([A-Za-z_][A-Za-z_0-9]*) *\\(")
    list(APPEND node_names ${CMAKE_MATCH_1})
  elseif(line MATCHES "([A-Za-z_][A-Za-z_0-9]*) *(\\[[0-9]*\\])? *;")
    list(APPEND node_names ${CMAKE_MATCH_1})
  endif()
endforeach()
list(LENGTH node_names node_count)
if(node_count LESS 30)
  message(FATAL_ERROR "only ${node_count} node names found in ${NODE_HEADER}")
endif()

# What the library's objects define (global text, data, bss, read-only), what
# the shared library exports, and what it imports.
symbols(archive_symbols --defined-only -g ${ARCHIVE})
symbols(dynamic_symbols -D ${LIBRARY})
names_of_types(defined "TDBRVW" ${archive_symbols})
names_of_types(exported "TDBRVWiu" ${dynamic_symbols})
names_of_types(imported "Uw" ${dynamic_symbols})

set(errors)
foreach(name IN LISTS map_names)
  list(FIND defined ${name} is_defined)
  list(FIND exported ${name} is_exported)
  if(is_defined GREATER -1 AND is_exported EQUAL -1)
    list(APPEND errors "defined but not exported: ${name}")
  elseif(is_defined EQUAL -1 AND is_exported GREATER -1)
    list(APPEND errors "exported but not defined by the library: ${name}")
  endif()
endforeach()
foreach(name IN LISTS exported)
  list(FIND map_names ${name} listed)
  if(listed EQUAL -1)
    list(APPEND errors "exported but not in the map: ${name}")
  endif()
endforeach()
foreach(name IN LISTS node_names)
  list(FIND exported ${name} is_exported)
  list(FIND imported ${name} is_imported)
  if(is_exported GREATER -1)
    list(APPEND errors "node name defined by libcpic: ${name}")
  elseif(is_imported EQUAL -1)
    list(APPEND errors "node name not imported: ${name}")
  endif()
endforeach()
list(LENGTH exported export_count)
if(errors)
  string(REPLACE ";" "\n  " text "${errors}")
  message(FATAL_ERROR "libcpic symbol check failed:\n  ${text}")
endif()
message(STATUS "libcpic exports ${export_count} names and imports all ${node_count} node names")
