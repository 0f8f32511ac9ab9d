# Fails when a file of one library includes a header of a library that it does not link. Run in src/ as a script with
#   FOLDER       the library's folder
#   HEADERS_MAY  the folders whose headers its headers may include, with "|" between them
#   SOURCES_MAY  the same for its sources
#   CHECKED      a file that is written when all is well
cmake_minimum_required(VERSION 3.25)

set(bad FALSE)
file(GLOB_RECURSE files RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${FOLDER}/*.h ${FOLDER}/*.cpp)
foreach(file IN LISTS files)
  set(may ${SOURCES_MAY})
  if(file MATCHES "\\.h$")
    set(may ${HEADERS_MAY})
  endif()
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"]*)\".*$" "\\1" header "${line}")
    # Without a folder it is one that the build makes.
    if(header MATCHES "/" AND NOT header MATCHES "^(${may})/[^.]")
      message(SEND_ERROR "src/${file} must not include \"${header}\": the library ${FOLDER} does not link it.")
      set(bad TRUE)
    endif()
  endforeach()
endforeach()
if(NOT bad)
  file(TOUCH ${CHECKED})
endif()
