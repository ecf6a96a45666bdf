# Installs BUILD_DIR below WORK_DIR, moves the prefix elsewhere, and builds and runs the consumer
# against it by WAY: find_package, pkg-config, or other_fmt, which must fail. By programs it runs
# what was installed instead.
cmake_minimum_required(VERSION 3.25)

# run(STEP COMMAND...): ends the test with the command's output when it fails.
function(run step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${step} failed (${status}): ${command}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/moved")
run("install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/installed")
file(RENAME "${WORK_DIR}/installed" "${prefix}")

# The libraries of a sanitized build want a program that brings the sanitizer.
set(flags)
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

if(WAY STREQUAL "find_package")
  run("configure" ${CMAKE_COMMAND} -G Ninja -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build"
    "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_FLAGS=${flags}"
    "-DCMAKE_PREFIX_PATH=${prefix};${FMT_ROOT}")
  run("build" ${CMAKE_COMMAND} --build "${WORK_DIR}/build")
  run("run" "${WORK_DIR}/build/consumer")
elseif(WAY STREQUAL "other_fmt")
  file(WRITE "${WORK_DIR}/fmt/fmt-config.cmake" "set(fmt_FOUND TRUE)\n")
  file(WRITE "${WORK_DIR}/fmt/fmt-config-version.cmake"
    "set(PACKAGE_VERSION 99.0)\nset(PACKAGE_VERSION_COMPATIBLE TRUE)\n")
  execute_process(COMMAND ${CMAKE_COMMAND} -G Ninja -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build"
    "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_PREFIX_PATH=${prefix}" "-Dfmt_DIR=${WORK_DIR}/fmt"
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  string(REGEX REPLACE "[ \n]+" " " out "${out}")
  set(refusal "KelpEmServer was built with fmt [0-9]+, but fmt 99.0 was found")
  if(status EQUAL 0 OR NOT out MATCHES "${refusal}")
    message(FATAL_ERROR "another fmt was not refused by name (${status}): ${out}")
  endif()
  return()
elseif(WAY STREQUAL "programs")
  file(GLOB programs "${prefix}/${PROGRAM_DIR}/*")
  foreach(program IN LISTS programs)
    run("start" "${program}" --help)
  endforeach()
  find_package(Python3 3.11 COMPONENTS Interpreter)
  if(Python3_FOUND)
    run("import" ${CMAKE_COMMAND} -E env "PYTHONPATH=${prefix}/share/kelp/python"
      ${Python3_EXECUTABLE} -B -c "import kelp_inspect; kelp_inspect.Agent")
  endif()
  # It starts the agent and the hardware side that lie beside it.
  run("demo" "${prefix}/${PROGRAM_DIR}/kelp-demo" --intents 500 --quiet)
  if(NOT output MATCHES "500 intents: 500 carried out")
    message(FATAL_ERROR "the installed demo printed:\n${output}")
  endif()
  return()
else()
  set(paths "${prefix}/${LIBRARY_DIR}/pkgconfig:${FMT_ROOT}/${LIBRARY_DIR}/pkgconfig")
  set(ENV{PKG_CONFIG_PATH} "${paths}")
  run("pkg-config" pkg-config --cflags --libs KelpEmServer)
  separate_arguments(package UNIX_COMMAND "${output}")
  run("build" "${COMPILER}" -std=c++20 ${flags} "${CONSUMER_DIR}/main.cpp"
    -o "${WORK_DIR}/consumer" ${package} "-Wl,-rpath,${prefix}/${LIBRARY_DIR}")
  run("run" "${WORK_DIR}/consumer")
endif()
if(NOT output STREQUAL "index 7\n")
  message(FATAL_ERROR "the consumer printed:\n${output}")
endif()
message(STATUS "${output}")
