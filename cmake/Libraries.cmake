# These let ccache work together with precompiled headers.
set(TRABEX_PCH_OPTIONS "$<IF:$<CXX_COMPILER_ID:GNU>,-fpch-preprocess,SHELL:-Xclang -fno-pch-timestamp>")

# With what only the libraries and the fuzz targets are compiled. libFuzzer has to see which way an input takes there.
set(TRABEX_LIBRARY_OPTIONS)
if(TRABEX_FUZZ)
  list(APPEND TRABEX_LIBRARY_OPTIONS -fsanitize=fuzzer-no-link)
endif()
if(TRABEX_PRECOMPILED_HEADERS)
  list(APPEND TRABEX_LIBRARY_OPTIONS ${TRABEX_PCH_OPTIONS})
endif()

# What most libraries include of the standard library, compiled once.
function(trabex_library_headers)
  file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/library_headers.cpp CONTENT "// Only its headers matter.\n")
  add_library(library_headers OBJECT ${CMAKE_CURRENT_BINARY_DIR}/library_headers.cpp)
  target_compile_options(library_headers PRIVATE ${TRABEX_LIBRARY_OPTIONS})
  target_precompile_headers(library_headers PRIVATE
    <algorithm> <array> <chrono> <cstdint> <functional> <map> <memory> <optional> <span> <sstream> <string> <string_view>
    <unordered_map> <utility> <vector>)
endfunction()

# trabex_library(NAME base SOURCES a.cpp b.cpp LINKS other libraries): the library of one folder of src/.
#
# Headers are included as "base/file.h". Before a library is compiled, all its files are searched for includes against
# the order of the libraries (CheckIncludes.cmake): a header may include those of the library itself, of LINKS and of
# what these link in turn, a source those of PRIVATE_LINKS as well. Anything else fails the build.
#
# FOLDER is the folder below src/, when that is not the name.
function(trabex_library)
  cmake_parse_arguments(LIBRARY "" "NAME;FOLDER" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  if(NOT LIBRARY_FOLDER)
    set(LIBRARY_FOLDER ${LIBRARY_NAME})
  endif()
  add_library(${LIBRARY_NAME} STATIC)
  foreach(source IN LISTS LIBRARY_SOURCES)
    target_sources(${LIBRARY_NAME} PRIVATE ${CMAKE_SOURCE_DIR}/src/${LIBRARY_FOLDER}/${source})
  endforeach()
  target_include_directories(${LIBRARY_NAME} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${LIBRARY_NAME} PUBLIC ${LIBRARY_LINKS} PRIVATE ${LIBRARY_PRIVATE_LINKS})
  target_compile_options(${LIBRARY_NAME} PRIVATE ${TRABEX_LIBRARY_OPTIONS})
  if(TRABEX_PRECOMPILED_HEADERS)
    target_precompile_headers(${LIBRARY_NAME} REUSE_FROM library_headers)
  endif()

  # Libraries that are not of src/ have no such property, and their headers are included in angle brackets.
  set(headers_may ${LIBRARY_FOLDER})
  foreach(link IN LISTS LIBRARY_LINKS)
    get_property(folders GLOBAL PROPERTY TRABEX_FOLDERS_${link})
    list(APPEND headers_may ${folders})
  endforeach()
  set(sources_may ${headers_may})
  foreach(link IN LISTS LIBRARY_PRIVATE_LINKS)
    get_property(folders GLOBAL PROPERTY TRABEX_FOLDERS_${link})
    list(APPEND sources_may ${folders})
  endforeach()
  list(REMOVE_DUPLICATES headers_may)
  list(REMOVE_DUPLICATES sources_may)
  set_property(GLOBAL PROPERTY TRABEX_FOLDERS_${LIBRARY_NAME} ${headers_may})

  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${LIBRARY_FOLDER}/*.h
       ${CMAKE_SOURCE_DIR}/src/${LIBRARY_FOLDER}/*.cpp)
  set(checked ${CMAKE_CURRENT_BINARY_DIR}/${LIBRARY_NAME}_includes_checked)
  list(JOIN headers_may "|" headers_may)
  list(JOIN sources_may "|" sources_may)
  add_custom_command(
    OUTPUT ${checked}
    COMMAND ${CMAKE_COMMAND} -DFOLDER=${LIBRARY_FOLDER} -DHEADERS_MAY=${headers_may} -DSOURCES_MAY=${sources_may}
            -DCHECKED=${checked} -P ${CMAKE_SOURCE_DIR}/cmake/CheckIncludes.cmake
    DEPENDS ${files} ${CMAKE_SOURCE_DIR}/cmake/CheckIncludes.cmake
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}/src
    COMMENT "Checking the includes of ${LIBRARY_NAME}"
    VERBATIM)
  target_sources(${LIBRARY_NAME} PRIVATE ${checked})
endfunction()

# The tests themselves are compiled without optimisation in every preset, which halves the time of a build; what they test
# is compiled as the preset says.
set(TRABEX_TEST_OPTIONS -O0 ${TRABEX_PCH_OPTIONS})

# What every test includes, compiled once: without it most of the time of a build goes into these headers. Each file
# still includes what it uses.
function(trabex_test_headers)
  add_library(test_headers OBJECT ${CMAKE_SOURCE_DIR}/tests/support/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE GTest::gtest GTest::gmock)
  target_compile_options(test_headers PRIVATE ${TRABEX_TEST_OPTIONS})
  target_precompile_headers(test_headers PRIVATE
    <gmock/gmock.h> <gtest/gtest.h>
    <algorithm> <array> <chrono> <cstdint> <filesystem> <fstream> <functional> <map> <memory> <optional> <random> <set>
    <span> <sstream> <string> <string_view> <thread> <unordered_map> <utility> <variant> <vector>)
endfunction()

# Tells these tests of TARGET the path of the source tree, as TRABEX_SOURCE_DIR. Only they are then compiled anew in
# another folder, where ccache knows all others.
function(trabex_tell_source_folder TARGET)
  foreach(file IN LISTS ARGN)
    set_property(SOURCE ${file} TARGET_DIRECTORY ${TARGET} APPEND PROPERTY
      COMPILE_DEFINITIONS TRABEX_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  endforeach()
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
