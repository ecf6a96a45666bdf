# What every target of the project has in common.

add_library(kelp_options INTERFACE)
target_include_directories(kelp_options INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform>
  $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>)
target_compile_options(kelp_options INTERFACE
  -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Werror
  # A setter `xIs(x)` beside an accessor `x()` is the house style, so only locals may not shadow.
  $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local> $<$<CXX_COMPILER_ID:Clang>:-Wshadow>)
if(KELP_SANITIZE)
  target_compile_options(kelp_options INTERFACE
    -fsanitize=${KELP_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kelp_options INTERFACE -fsanitize=${KELP_SANITIZE})
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND KELP_SANITIZE MATCHES "thread")
  # The compiler cannot model free-standing fences under this sanitizer; the code has none.
  target_compile_options(kelp_options INTERFACE -Wno-tsan)
endif()

# kelp_test(NAME LIBRARIES... ): every *.cpp of the current folder as one GoogleTest program.
function(kelp_test name)
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support")
  # The tests themselves need no speed, and there are many instantiations to compile.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  target_link_libraries(${name} PRIVATE kelp_options ${ARGN} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()

# kelp_exports(TARGET MAP): the shared library shows only what the version script MAP names.
function(kelp_exports target map)
  target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
