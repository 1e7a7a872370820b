include(GoogleTest)

# velt_library(NAME SOURCES ... DEPS ...)
# Declares one library the same way everywhere: its folder is its public
# include directory, and its dependencies are public.
function(velt_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} Threads::Threads)
endfunction()

# The test executables share one precompiled header of GoogleTest and the
# standard headers they use most, which every test source would otherwise
# parse again (about a second each). A target that reuses a precompiled
# header must be compiled alike, so its holder is an executable linked like
# the tests.
option(VELT_TEST_PCH "Build the tests with a shared precompiled header" ON)
function(velt_test_pch)
  if(TARGET velt_test_pch)
    return()
  endif()
  file(WRITE ${PROJECT_BINARY_DIR}/velt_test_pch.cc "int main() { return 0; }\n")
  add_executable(velt_test_pch ${PROJECT_BINARY_DIR}/velt_test_pch.cc)
  target_link_libraries(velt_test_pch PRIVATE GTest::gtest Threads::Threads)
  # Some libraries the tests link ask for -pthread; so do all tests.
  target_compile_options(velt_test_pch PRIVATE -pthread ${VELT_TEST_COMPILE_OPTIONS})
  target_precompile_headers(velt_test_pch PRIVATE
    <gtest/gtest.h> <algorithm> <atomic> <chrono> <functional> <map> <memory> <mutex>
    <set> <string> <thread> <vector>)
endfunction()

# A test executable's sources can be compiled as one (a unity build): the
# headers they share, GoogleTest's above all, are then compiled once per
# executable. Quicker from scratch, slower to rebuild after a change of one
# test; the sanitizer builds (clang) use it. g++ warns there of test fixtures
# in anonymous namespaces (-Wsubobject-linkage), so its builds do not.
option(VELT_UNITY_TESTS "Compile each test executable's sources together" OFF)

# In the ordinary optimised build (RelWithDebInfo, no sanitizer) the test
# sources are compiled with -O1 and line tables only: GoogleTest's macros
# cost about twice the compile time at -O2 with full debug information, and
# what the tests test, the libraries and programs, is built as the build
# type says. Failures still point at file and line.
set(VELT_TEST_COMPILE_OPTIONS "")
if(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo" AND NOT VELT_SANITIZE)
  set(VELT_TEST_COMPILE_OPTIONS -O1 -g1)
endif()

# velt_test(NAME SOURCES ... DEPS ... [LABELS ...] [TIMEOUT n])
# One GoogleTest executable; each of its tests is a CTest test of its own
# (so that CTest runs them in parallel and counts them), and a test that
# calls GTEST_SKIP is reported as skipped, never as passed.
function(velt_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/sanitizers)
  target_compile_options(${name} PRIVATE ${VELT_TEST_COMPILE_OPTIONS})
  if(VELT_TEST_PCH)
    velt_test_pch()
    target_precompile_headers(${name} REUSE_FROM velt_test_pch)
    target_compile_options(${name} PRIVATE -pthread)
  endif()
  set_target_properties(${name} PROPERTIES UNITY_BUILD ${VELT_UNITY_TESTS})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  set(labels unit)
  if(ARG_LABELS)
    set(labels ${ARG_LABELS})
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 30
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${labels}"
               SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
endfunction()
