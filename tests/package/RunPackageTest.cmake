# Installs the built project into a scratch prefix and builds and runs a consumer against it.
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${WORK_DIR}/prefix"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
foreach(f include/SupportQtDll.h include/SupportDll.h include/YString.h)
  if(NOT EXISTS "${WORK_DIR}/prefix/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
                        "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix"
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
execute_process(COMMAND "${WORK_DIR}/build/consumer" RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message(STATUS "consumer: ${out}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "tokens=4 value=4700 utf8=1 size=3")
  message(FATAL_ERROR "consumer failed: ${rc} ${out}")
endif()

# The installed tool runs from the prefix and validates against the installed schema.
if(EXISTS "${WORK_DIR}/prefix/bin/supportqt")
  execute_process(COMMAND "${WORK_DIR}/prefix/bin/supportqt" validate
                          "${SOURCE_DIR}/examples/results/buck_sensitivity.msw" --json
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "\"schema\": \"${WORK_DIR}/prefix/share/SupportQtDll/schemas/msw.xsd\"")
    message(FATAL_ERROR "installed tool failed: ${rc} ${out} ${err}")
  endif()
endif()
