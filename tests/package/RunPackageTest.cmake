# Installs the built project into a scratch prefix and builds and runs a consumer against it. A cross
# build for Windows builds the consumer with the same toolchain file and runs it, and the installed
# tool's demo, under the emulator (Wine), the tool with nothing but the install tree on its search path.
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${WORK_DIR}/prefix"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
# Installed binaries find libraries only through run paths relative to themselves.
if(NOT TOOLCHAIN_FILE AND CMAKE_HOST_UNIX)
  execute_process(COMMAND ${CMAKE_COMMAND} "-DDIRS=${WORK_DIR}/prefix" -P "${SOURCE_DIR}/cmake/CheckRunPaths.cmake"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "installed run paths: ${out} ${err}")
  endif()
endif()
foreach(f include/SupportQtDll.h include/SupportDll.h include/YString.h)
  if(NOT EXISTS "${WORK_DIR}/prefix/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
set(cross_arguments)
set(run_prefix)
set(exe_suffix)
if(TOOLCHAIN_FILE)
  # Packages are found inside the toolchain's root paths only: the scratch package is named directly.
  set(cross_arguments "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}"
                      "-DSupportQtDll_DIR=${WORK_DIR}/prefix/lib/cmake/SupportQtDll")
  set(run_prefix ${CMAKE_COMMAND} -E env "WINEPATH=${WORK_DIR}/prefix/bin" ${EMULATOR})
  set(exe_suffix ".exe")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
                        "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" ${cross_arguments}
                        "-DCMAKE_CXX_COMPILER=${CONSUMER_COMPILER}"
                        "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}"
                        "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}"
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}/build" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${run_prefix} "${WORK_DIR}/build/consumer${exe_suffix}" RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message(STATUS "consumer: ${out}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "tokens=4 value=4700 utf8=1 size=3")
  message(FATAL_ERROR "consumer failed: ${rc} ${out}")
endif()

# The installed tool runs from the prefix and validates against the installed schema.
if(EXISTS "${WORK_DIR}/prefix/bin/supportqt.exe")
  # The Windows install tree on its own: the tool's demo runs from it with nothing of the build on the
  # search path, reading the installed examples.
  execute_process(COMMAND ${CMAKE_COMMAND} -E env SUPPORTQT_WINE_ALONE=1 ${EMULATOR}
                          "${WORK_DIR}/prefix/bin/supportqt.exe" demo -o "${WORK_DIR}/demo-out"
                  WORKING_DIRECTORY "${WORK_DIR}"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT EXISTS "${WORK_DIR}/demo-out/sensitivity.html" OR NOT EXISTS "${WORK_DIR}/demo-out/montecarlo.html")
    message(FATAL_ERROR "installed tool's demo failed: ${rc} ${out} ${err}")
  endif()
  message(STATUS "installed demo: ${out}")
endif()
if(EXISTS "${WORK_DIR}/prefix/bin/supportqt")
  execute_process(COMMAND "${WORK_DIR}/prefix/bin/supportqt" validate
                          "${SOURCE_DIR}/examples/results/buck_sensitivity.msw" --json
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "\"schema\": \"${WORK_DIR}/prefix/share/SupportQtDll/schemas/msw.xsd\"")
    message(FATAL_ERROR "installed tool failed: ${rc} ${out} ${err}")
  endif()
endif()
