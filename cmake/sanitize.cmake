# VELT_SANITIZE: the sanitizers every target is compiled and linked with.
#   ""                 none (the default)
#   address,undefined  AddressSanitizer with its leak checker, and UBSan;
#                      undefined behaviour ends the process (no recovery)
#   thread             ThreadSanitizer
# Works with g++ and clang++. The mode is defined for the code as
# VELT_SANITIZER_ADDRESS or VELT_SANITIZER_THREAD; tests ask
# velt_test::kSanitized (tests/sanitizers/sanitized.h).
set(VELT_SANITIZER_FLAGS "")
if(VELT_SANITIZE STREQUAL "address,undefined")
  set(VELT_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined)
  add_compile_definitions(VELT_SANITIZER_ADDRESS=1)
elseif(VELT_SANITIZE STREQUAL "thread")
  set(VELT_SANITIZER_FLAGS -fsanitize=thread)
  add_compile_definitions(VELT_SANITIZER_THREAD=1)
elseif(NOT VELT_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VELT_SANITIZE=\"${VELT_SANITIZE}\" is not a sanitizer mode of this build; "
                      "use \"address,undefined\", \"thread\", or \"\" for none.")
endif()
if(VELT_SANITIZER_FLAGS)
  list(APPEND VELT_SANITIZER_FLAGS -fno-omit-frame-pointer)
  add_compile_options(${VELT_SANITIZER_FLAGS})
  add_link_options(${VELT_SANITIZER_FLAGS})
  message(STATUS "Sanitizers: ${VELT_SANITIZE} (${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION})")

  # The runtime options a sanitized process starts with, compiled into each
  # executable (tests/sanitizers/sanitizer_options.c), so that a binary of
  # this build is as strict run by hand, by CTest or as a test's child as
  # it is in scripts/test. Options in the environment still override them.
  add_library(velt_sanitizer_options OBJECT ${PROJECT_SOURCE_DIR}/tests/sanitizers/sanitizer_options.c)
  target_compile_definitions(velt_sanitizer_options PRIVATE
    VELT_SANITIZER_DIR="${PROJECT_SOURCE_DIR}/tests/sanitizers")
  # The same for the programs that end the process inside a signal handler
  # (see sanitizer_options.c).
  add_library(velt_sanitizer_options_signal_exit OBJECT ${PROJECT_SOURCE_DIR}/tests/sanitizers/sanitizer_options.c)
  target_compile_definitions(velt_sanitizer_options_signal_exit PRIVATE
    VELT_SANITIZER_DIR="${PROJECT_SOURCE_DIR}/tests/sanitizers" VELT_SIGNAL_HANDLER_EXITS=1)
endif()

# Links the runtime options into every executable declared so far (called
# once, at the end of the top-level CMakeLists.txt).
function(velt_link_sanitizer_options)
  if(NOT TARGET velt_sanitizer_options)
    return()
  endif()
  set(dirs ${PROJECT_SOURCE_DIR})
  while(dirs)
    list(POP_FRONT dirs dir)
    get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
    list(APPEND dirs ${subdirs})
    get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
      get_target_property(type ${target} TYPE)
      if(target STREQUAL "tolkvaskd")
        target_sources(${target} PRIVATE $<TARGET_OBJECTS:velt_sanitizer_options_signal_exit>)
      elseif(type STREQUAL "EXECUTABLE")
        target_sources(${target} PRIVATE $<TARGET_OBJECTS:velt_sanitizer_options>)
      endif()
    endforeach()
  endwhile()
endfunction()
