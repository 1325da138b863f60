# Installs the public headers: the roots given and every krcommon header they
# include, transitively, each under its own folder. Headers in a detail/ folder
# are internal and never installed; the install test reports a public header that
# includes one. Runs at install time (so that it follows the headers as they are
# then), from an install(CODE) rule that sets:
#   KRCOMMON_HEADER_SOURCE       the source tree
#   KRCOMMON_HEADER_DESTINATION  the include folder under the prefix (or absolute)
#   KRCOMMON_HEADER_ROOTS        header paths or globs relative to the source tree

cmake_policy(PUSH)
cmake_policy(VERSION 3.25)

set(pending "")
foreach(root IN LISTS KRCOMMON_HEADER_ROOTS)
  file(GLOB matches RELATIVE "${KRCOMMON_HEADER_SOURCE}" "${KRCOMMON_HEADER_SOURCE}/${root}")
  if(NOT matches)
    message(FATAL_ERROR "public headers: nothing matches ${root}")
  endif()
  list(SORT matches)
  list(APPEND pending ${matches})
endforeach()

set(public "")
while(pending)
  list(POP_FRONT pending header)
  if(header IN_LIST public OR header MATCHES "/detail/")
    continue()
  endif()
  if(NOT EXISTS "${KRCOMMON_HEADER_SOURCE}/${header}")
    message(FATAL_ERROR "public headers: ${header} is included but does not exist")
  endif()
  list(APPEND public "${header}")
  file(STRINGS "${KRCOMMON_HEADER_SOURCE}/${header}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*<krcommon/[^>]+>")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*<(krcommon/[^>]+)>.*" "\\1" included "${line}")
    list(APPEND pending "${included}")
  endforeach()
endwhile()

if(IS_ABSOLUTE "${KRCOMMON_HEADER_DESTINATION}")
  set(destination "${KRCOMMON_HEADER_DESTINATION}")
else()
  set(destination "${CMAKE_INSTALL_PREFIX}/${KRCOMMON_HEADER_DESTINATION}")
endif()
list(SORT public)
foreach(header IN LISTS public)
  get_filename_component(folder "${header}" DIRECTORY)
  file(INSTALL DESTINATION "${destination}/${folder}" TYPE FILE FILES "${KRCOMMON_HEADER_SOURCE}/${header}")
endforeach()

cmake_policy(POP)
