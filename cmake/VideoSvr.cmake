# Compiler options and the three ways to add a target: vs_library() for a layer, vs_preload() for what answers
# calls of the C library in its place, vs_test() for tests.

set(VS_TEST_LABELS unit platform stress plain CACHE STRING "the labels of GoogleTest programs to build")
option(VS_DAEMON "build what needs third-party libraries: the daemon, camctl, board tests" ON)
set(VS_SANITIZE "" CACHE STRING "value of -fsanitize, empty for none")
option(VS_COVERAGE "count which lines of the daemon run: see scripts/coverage" OFF)

add_library(vs_options INTERFACE)
target_compile_features(vs_options INTERFACE cxx_std_17)
target_compile_options(vs_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
                                            -fno-strict-aliasing)
# The same 64-bit time and file offsets on every target.
target_compile_definitions(vs_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64 _GNU_SOURCE)
set(CMAKE_CXX_EXTENSIONS OFF)
find_package(Threads REQUIRED)
target_link_libraries(vs_options INTERFACE Threads::Threads)

if(VS_SANITIZE)
  # Lines are all of the debugging information that a report needs, and cost less to build.
  add_compile_options(-g1 -fsanitize=${VS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VS_SANITIZE})
  if(VS_SANITIZE STREQUAL "thread")
    add_compile_options(-Wno-tsan)  # it warns of fences; the code that uses them says how it copes
  endif()
endif()

# What distributions build their packages with. The sanitizers watch more than fortified calls do, which
# would hide calls from them; static programs, the tests on MIPS, have a fixed place.
if(NOT VS_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_options(-D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection)
  add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack)
  add_compile_options(-ffunction-sections -fdata-sections)  # a camera's flash is small
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-mstringop-strategy=libcall VS_STRING_CALLS)
  if(VS_STRING_CALLS)
    # For size, x86 would copy by an instruction, which is slower and which nobody can count.
    add_compile_options(-mstringop-strategy=libcall)
  endif()
endif()
if(NOT CMAKE_EXE_LINKER_FLAGS_INIT MATCHES "-static")
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()

# vs_library(NAME SOURCES file... LINKS library...): a layer of the daemon. It may use the platform's
# headers and the libraries named, and nothing else: linkcheck_NAME links the whole archive with just
# those and the platform, so that a reference to a higher layer does not build.
function(vs_library name)
  cmake_parse_arguments(LIB "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${LIB_SOURCES})
  target_link_libraries(${name} PUBLIC platform ${LIB_LINKS})
  set_property(GLOBAL APPEND PROPERTY VS_LAYERS ${name})
  if(VS_COVERAGE)  # of the layers alone, as they are written, with counts that threads may share
    target_compile_options(${name} PRIVATE --coverage -fprofile-update=atomic -O0 -U_FORTIFY_SOURCE)
    target_link_options(${name} PUBLIC --coverage)
  endif()
  if(VS_DAEMON AND NOT VS_SANITIZE AND NOT VS_COVERAGE)
    add_executable(linkcheck_${name} ${PROJECT_SOURCE_DIR}/cmake/linkcheck.cpp)
    target_link_options(linkcheck_${name} PRIVATE
                        -Wl,--whole-archive $<TARGET_FILE:${name}> -Wl,--no-whole-archive)
    target_link_libraries(linkcheck_${name} PRIVATE ${LIB_LINKS} platform_linux)
    add_dependencies(linkcheck_${name} ${name})
  endif()
endfunction()

# vs_preload(NAME SOURCES file... [OPTIONS option...] [DRIVERS]): a library to be preloaded into any program,
# whatever that is linked with and sanitized by, so it needs the C library alone. DRIVERS: it also answers
# for the board's device nodes.
function(vs_preload name)
  cmake_parse_arguments(PRELOAD "DRIVERS" "" "SOURCES;OPTIONS" ${ARGN})
  if(PRELOAD_DRIVERS)
    set(drivers connection.cpp open_nodes.cpp preload.cpp)
    list(TRANSFORM drivers PREPEND ${PROJECT_SOURCE_DIR}/board/drivers/)
    list(APPEND PRELOAD_SOURCES ${drivers} ${PROJECT_SOURCE_DIR}/platform/linux/unix_address.cpp)
  endif()
  add_library(${name} MODULE ${PRELOAD_SOURCES})
  target_link_libraries(${name} PRIVATE platform)
  target_compile_options(${name} PRIVATE -fno-sanitize=all -fno-exceptions -fno-rtti -fvisibility=hidden
                                         ${PRELOAD_OPTIONS})
  target_link_options(${name} PRIVATE -fno-sanitize=all -static-libgcc LINKER:--as-needed,--no-undefined)
  set_target_properties(${name} PROPERTIES PREFIX lib)
endfunction()

set(VS_TEST_OPTIONS -O0 -U_FORTIFY_SOURCE)  # fortified calls want optimising
if(VS_SANITIZE)
  list(APPEND VS_TEST_OPTIONS -fno-sanitize=undefined)
endif()

# vs_test(NAME SOURCES file... LINKS library... LABELS label [SHARDS number] [TIMEOUT seconds]
# [ONE_THREAD]): a GoogleTest program. It is run whole, because starting a process for each of its cases
# costs more than the cases, or in that many parts, which run side by side. What each case came to stands
# in cases/ of the build. ONE_THREAD: neither the test nor what it tests has a second one, so that it is
# left out where races are watched.
function(vs_test name)
  cmake_parse_arguments(TEST "ONE_THREAD" "SHARDS;TIMEOUT" "SOURCES;LINKS;LABELS" ${ARGN})
  if(NOT TEST_TIMEOUT)
    set(TEST_TIMEOUT 300)
  endif()
  if(NOT TEST_SHARDS)
    set(TEST_SHARDS 1)
  endif()
  add_executable(${name} ${TEST_SOURCES})
  target_link_libraries(${name} PRIVATE platform ${TEST_LINKS} gmock_main)
  # The test cases alone, not what they test: with sanitizers, optimising and watching them takes three
  # times as long.
  target_compile_options(${name} PRIVATE ${VS_TEST_OPTIONS})
  # The headers of the test framework and the heaviest of the library's are read once per build.
  target_precompile_headers(${name} REUSE_FROM test_headers)
  if(NOT TEST_LABELS IN_LIST VS_TEST_LABELS OR (TEST_ONE_THREAD AND VS_SANITIZE STREQUAL "thread"))
    set_property(TARGET ${name} PROPERTY EXCLUDE_FROM_ALL ON)
    return()
  endif()
  foreach(shard RANGE 1 ${TEST_SHARDS})
    math(EXPR index "${shard} - 1")
    add_test(NAME ${name}/${shard} COMMAND ${name})
    set_tests_properties(${name}/${shard} PROPERTIES LABELS "${TEST_LABELS}" TIMEOUT ${TEST_TIMEOUT}
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${TEST_SHARDS};GTEST_SHARD_INDEX=${index};\
GTEST_OUTPUT=xml:${CMAKE_BINARY_DIR}/cases/${name}.${shard}.xml")
  endforeach()
endfunction()
