# One helper per kind of target keeps each subsystem's CMakeLists to a few lines.

# Shared objects refuse undefined symbols, except in the fuzz build, where clang leaves the
# sanitizer runtime to the executable.
if(VLINK_BUILD_FUZZ)
  set(VLINK_NO_UNDEFINED "")
else()
  set(VLINK_NO_UNDEFINED -Wl,--no-undefined)
endif()

set(VLINK_WARNINGS -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion)

include(VlinkLayers)

# vlink_library(NAME <target> SRCS ... PUBLIC_DEPS ... DEPS ...)
# A static, position-independent part of libtavo_video_vlink.so. PUBLIC_DEPS are what its
# headers expose; DEPS what only its sources use. Both say what it really uses, so the
# target graph draws the layering. Its sources see only the folders its layer (the folder it
# is declared in) may include.
function(vlink_library)
  cmake_parse_arguments(ARG "" "NAME" "SRCS;PUBLIC_DEPS;DEPS" ${ARGN})
  add_library(${ARG_NAME} STATIC ${ARG_SRCS})
  vlink_layer_of_folder(layer)
  vlink_include_root(${ARG_NAME} ${layer})
  target_compile_options(${ARG_NAME} PRIVATE ${VLINK_WARNINGS})
  target_link_libraries(${ARG_NAME} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_DEPS})
endfunction()

# vlink_test(NAME <test> SRCS ... DEPS ...)
# Each test case runs in a process of its own; then, unless SINGLE (one long case), the
# whole program runs once more as one process, twice over in a random order, so that a test
# leaning on another's leftovers, on running first or on once-per-process state fails.
function(vlink_test)
  cmake_parse_arguments(ARG "SINGLE" "NAME" "SRCS;DEPS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SRCS})
  vlink_include_root(${ARG_NAME} tests)
  target_compile_options(${ARG_NAME} PRIVATE ${VLINK_WARNINGS})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  if(NOT ARG_SINGLE)
    add_test(NAME ${ARG_NAME}.shuffled COMMAND ${ARG_NAME} --gtest_repeat=2 --gtest_shuffle)
    set_tests_properties(${ARG_NAME}.shuffled PROPERTIES TIMEOUT 600 LABELS shuffled)
  endif()
endfunction()

# Libraries loaded by name at run time land in one folder. dlopen searches the RUNPATH of
# the object that calls it, which after a tail call in the platform loader is whoever called
# that: every target that loads them by name gets the folder too.
set(VLINK_LOADABLE_DIR ${PROJECT_BINARY_DIR}/lib)
function(vlink_loads_at_run_time target)
  set_property(TARGET ${target} APPEND PROPERTY BUILD_RPATH ${PROJECT_BINARY_DIR}/lib)
endfunction()

# What ThreadSanitizer reports of third-party code (OpenCV's image reading through GDAL,
# Xlib's IO error path): not ours to fix. Compiled into each program that meets it.
set(VLINK_THIRD_PARTY_SUPPRESSIONS ${PROJECT_SOURCE_DIR}/tools/common/third_party_suppressions.cpp)
