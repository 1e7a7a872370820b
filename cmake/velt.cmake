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

# velt_test(NAME SOURCES ... DEPS ... [LABELS ...] [TIMEOUT n])
# One GoogleTest executable; each of its tests is a CTest test of its own
# (so that CTest runs them in parallel and counts them), and a test that
# calls GTEST_SKIP is reported as skipped, never as passed.
function(velt_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
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
