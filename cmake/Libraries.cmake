# trabex_library(NAME base SOURCES a.cpp b.cpp LINKS other libraries): the library of one folder of src/.
#
# Its headers are included as "base/file.h", and only a target that links the library finds them: each library has an
# include root of its own (a link to its folder) instead of the common src/. So an include against the order of the
# libraries fails to build.
#
# FOLDER is the folder below src/, when that is not the name.
function(trabex_library)
  cmake_parse_arguments(LIBRARY "" "NAME;FOLDER" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  if(NOT LIBRARY_FOLDER)
    set(LIBRARY_FOLDER ${LIBRARY_NAME})
  endif()
  set(root ${CMAKE_BINARY_DIR}/libraries/${LIBRARY_NAME})
  cmake_path(GET LIBRARY_FOLDER PARENT_PATH parent)
  file(MAKE_DIRECTORY ${root}/${parent})
  file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/${LIBRARY_FOLDER} ${root}/${LIBRARY_FOLDER} SYMBOLIC)
  if(NOT LIBRARY_SOURCES)
    add_library(${LIBRARY_NAME} INTERFACE)
    target_include_directories(${LIBRARY_NAME} INTERFACE ${root})
    target_link_libraries(${LIBRARY_NAME} INTERFACE ${LIBRARY_LINKS})
    return()
  endif()
  add_library(${LIBRARY_NAME} STATIC)
  foreach(source IN LISTS LIBRARY_SOURCES)
    target_sources(${LIBRARY_NAME} PRIVATE ${CMAKE_SOURCE_DIR}/src/${LIBRARY_FOLDER}/${source})
  endforeach()
  target_include_directories(${LIBRARY_NAME} PUBLIC ${root})
  target_link_libraries(${LIBRARY_NAME} PUBLIC ${LIBRARY_LINKS} PRIVATE ${LIBRARY_PRIVATE_LINKS})
endfunction()

# The tests themselves are compiled without optimisation in every preset, which halves the time of a build; what they test
# is compiled as the preset says. The second option lets ccache work together with the common headers.
set(TRABEX_TEST_OPTIONS -O0 "$<IF:$<CXX_COMPILER_ID:GNU>,-fpch-preprocess,SHELL:-Xclang -fno-pch-timestamp>")

# What every test includes, compiled once: without it most of the time of a build goes into these headers. Each file
# still includes what it uses; the libraries are built without.
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
