# DemoDependencies.cmake - the packages that scripts/demo installs: the tool's build needs and nothing
# the tests alone need (test framework, browser, fuzzing compiler, Python), a part of the full set, and
# enough: the project configures as scripts/demo configures it where no test package can be found.
cmake_minimum_required(VERSION 3.16)
function(run_deps out)
  execute_process(COMMAND bash "${SOURCE_DIR}/scripts/deps" ${ARGN} --list
                  RESULT_VARIABLE rc OUTPUT_VARIABLE text ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "scripts/deps ${ARGN} --list: ${rc} ${err}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

run_deps(demo --demo)
set(expected "cmake ninja-build g++ qtbase5-dev libqt5xmlpatterns5-dev libpugixml-dev zlib1g-dev")
if(NOT demo STREQUAL expected)
  message(FATAL_ERROR "the demo's packages are '${demo}', expected '${expected}'")
endif()
run_deps(all)
separate_arguments(demo_list UNIX_COMMAND "${demo}")
separate_arguments(all_list UNIX_COMMAND "${all}")
foreach(p IN LISTS demo_list)
  if(NOT p IN_LIST all_list)
    message(FATAL_ERROR "${p} is in the demo's set but not in the full one")
  endif()
endforeach()
foreach(p chromium clang libgtest-dev python3 parallel)
  if(NOT p IN_LIST all_list)
    message(FATAL_ERROR "${p} is missing from the full set")
  endif()
endforeach()

# scripts/demo installs the demo's set and leaves the tests out of a fresh build folder.
file(READ "${SOURCE_DIR}/scripts/demo" demo_script)
foreach(needle "\"$root/scripts/deps\" --demo\n" "-DSUPPORTQT_BUILD_TESTS=OFF")
  string(FIND "${demo_script}" "${needle}" at)
  if(at LESS 0)
    message(FATAL_ERROR "scripts/demo lacks ${needle}")
  endif()
endforeach()

# Configured as scripts/demo configures a fresh folder, with every package of the tests out of reach,
# the project still has the tool to build.
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}" -G "${GENERATOR}"
                        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSUPPORTQT_BUILD_TESTS=OFF
                        -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON
                        -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring as scripts/demo does failed: ${out} ${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}" --target help
                RESULT_VARIABLE rc OUTPUT_VARIABLE targets)
string(FIND "${targets}" "supportqt" at)
file(REMOVE_RECURSE "${WORK_DIR}")
if(at LESS 0)
  message(FATAL_ERROR "no supportqt target when configured as scripts/demo does: ${targets}")
endif()
message(STATUS "the demo's packages: ${demo}")
