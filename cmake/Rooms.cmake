# A room is one folder below src/ and one library. Its headers are included as "room/file.h", and can be found
# only by a target that links the room: each room has an include root of its own (a link to its folder) instead
# of the common src/. So an include against the order of the rooms fails to build.
#
# trabex_room(NAME room SOURCES a.cpp b.cpp LINKS other rooms and libraries)
#
# FOLDER says where below src/ it lies, when that is not its name.
function(trabex_room)
  cmake_parse_arguments(ROOM "" "NAME;FOLDER" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  if(NOT ROOM_FOLDER)
    set(ROOM_FOLDER ${ROOM_NAME})
  endif()
  set(root ${CMAKE_BINARY_DIR}/rooms/${ROOM_NAME})
  cmake_path(GET ROOM_FOLDER PARENT_PATH parent)
  file(MAKE_DIRECTORY ${root}/${parent})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/${ROOM_FOLDER} ${root}/${ROOM_FOLDER} SYMBOLIC)
  if(NOT ROOM_SOURCES)
    add_library(${ROOM_NAME} INTERFACE)
    target_include_directories(${ROOM_NAME} INTERFACE ${root})
    target_link_libraries(${ROOM_NAME} INTERFACE ${ROOM_LINKS})
    return()
  endif()
  add_library(${ROOM_NAME} STATIC)
  foreach(source IN LISTS ROOM_SOURCES)
    target_sources(${ROOM_NAME} PRIVATE ${CMAKE_SOURCE_DIR}/src/${ROOM_FOLDER}/${source})
  endforeach()
  target_include_directories(${ROOM_NAME} PUBLIC ${root})
  target_link_libraries(${ROOM_NAME} PUBLIC ${ROOM_LINKS} PRIVATE ${ROOM_PRIVATE_LINKS})
endfunction()

# The tests themselves are compiled without optimisation in every preset, which halves the time of a build; what they test
# is compiled as the preset says. The second option lets ccache work together with the common headers.
set(TRABEX_TEST_OPTIONS -O0 "$<IF:$<CXX_COMPILER_ID:GNU>,-fpch-preprocess,SHELL:-Xclang -fno-pch-timestamp>")

# What every test includes, compiled once: without it most of the time of a build goes into these headers. Each file
# still includes what it uses; the rooms themselves are built without.
function(trabex_test_headers)
  add_library(test_headers OBJECT ${CMAKE_SOURCE_DIR}/tests/support/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE GTest::gtest GTest::gmock)
  target_compile_options(test_headers PRIVATE ${TRABEX_TEST_OPTIONS})
  target_precompile_headers(test_headers PRIVATE
    <gmock/gmock.h> <gtest/gtest.h>
    <algorithm> <array> <chrono> <cstdint> <filesystem> <fstream> <functional> <map> <memory> <optional> <random> <set>
    <span> <sstream> <string> <string_view> <thread> <unordered_map> <utility> <variant> <vector>)
endfunction()

# trabex_test(NAME base_text SOURCES unit/base/text_test.cpp LINKS base): one test program, known to ctest.
function(trabex_test)
  cmake_parse_arguments(TEST "" "NAME;TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT TEST_TIMEOUT)
    set(TEST_TIMEOUT 120)
  endif()
  add_executable(${TEST_NAME} ${TEST_SOURCES})
  target_link_libraries(${TEST_NAME} PRIVATE ${TEST_LINKS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${TEST_NAME} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_compile_options(${TEST_NAME} PRIVATE ${TRABEX_TEST_OPTIONS})
  target_precompile_headers(${TEST_NAME} REUSE_FROM test_headers)
  add_test(NAME ${TEST_NAME} COMMAND ${TEST_NAME})
  set_tests_properties(${TEST_NAME} PROPERTIES TIMEOUT ${TEST_TIMEOUT})
endfunction()
