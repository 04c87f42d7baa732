# Installs the built project into a scratch prefix and builds and runs a consumer against it. A cross
# build for Windows builds the consumer with the same toolchain file and runs it, and the installed
# tool's demo, under the emulator (Wine), the tool with nothing but the install tree on its search path.
# MODE picks the consumer: "install" (default) the consumer of both libraries against the install tree,
# and the installed tool; "core" the consumer of the core library alone, configured where no Qt can be
# found; "build-tree" the consumer of both libraries against the build folder itself, installing nothing.
if(NOT MODE)
  set(MODE install)
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
# The package is found on the prefix path, or named directly: the build folder, or the scratch prefix in
# a cross build (whose packages are found inside the toolchain's root paths only).
set(package_arguments "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix")
if(MODE STREQUAL "build-tree")
  set(package_arguments "-DSupportQtDll_DIR=${BINARY_DIR}")
elseif(TOOLCHAIN_FILE)
  list(APPEND package_arguments "-DSupportQtDll_DIR=${WORK_DIR}/prefix/lib/cmake/SupportQtDll")
endif()
if(NOT MODE STREQUAL "build-tree")
  execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${WORK_DIR}/prefix"
                  RESULT_VARIABLE rc OUTPUT_QUIET)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install failed: ${rc}")
  endif()
endif()
if(MODE STREQUAL "install")
  # Installed binaries find libraries only through run paths relative to themselves.
  if(NOT TOOLCHAIN_FILE AND CMAKE_HOST_UNIX)
    execute_process(COMMAND ${CMAKE_COMMAND} "-DDIRS=${WORK_DIR}/prefix" -P "${SOURCE_DIR}/cmake/CheckRunPaths.cmake"
                    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "installed run paths: ${out} ${err}")
    endif()
  endif()
  # Both libraries' headers sit in the package's own folder, none directly in include/.
  foreach(f include/SupportQtDll/SupportQtDll.h include/SupportQtDll/SupportDll.h include/SupportQtDll/YString.h
            include/SupportQtDll/Options.h)
    if(NOT EXISTS "${WORK_DIR}/prefix/${f}")
      message(FATAL_ERROR "not installed: ${f}")
    endif()
  endforeach()
  file(GLOB stray_headers "${WORK_DIR}/prefix/include/*.h")
  if(stray_headers)
    message(FATAL_ERROR "headers installed outside include/SupportQtDll: ${stray_headers}")
  endif()
endif()
set(consumer_dir "${CONSUMER_DIR}")
set(consumer_name consumer)
set(expected "tokens=4 value=4700 utf8=1 size=3")
set(mode_arguments)
if(MODE STREQUAL "core")
  # Qt is neither on the prefix path nor allowed to be found elsewhere: the core library's component
  # must not look for it.
  set(consumer_dir "${CONSUMER_DIR}/core-consumer")
  set(consumer_name core-consumer)
  set(expected "tokens=4 value=4700 parsed=2.5")
  set(mode_arguments "-DCMAKE_DISABLE_FIND_PACKAGE_Qt5=ON")
endif()
set(cross_arguments)
set(run_prefix)
set(exe_suffix)
if(TOOLCHAIN_FILE)
  set(cross_arguments "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
  set(run_prefix ${CMAKE_COMMAND} -E env "WINEPATH=${WORK_DIR}/prefix/bin" ${EMULATOR})
  set(exe_suffix ".exe")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S "${consumer_dir}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
                        ${package_arguments} ${mode_arguments} ${cross_arguments}
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
execute_process(COMMAND ${run_prefix} "${WORK_DIR}/build/${consumer_name}${exe_suffix}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message(STATUS "${consumer_name}: ${out}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "${expected}")
  message(FATAL_ERROR "${consumer_name} failed: ${rc} ${out}")
endif()
if(NOT MODE STREQUAL "install")
  return()
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
if(EXISTS "${WORK_DIR}/prefix/bin/supportqt" AND CMAKE_HOST_UNIX)
  # The installed tool's demo once the source tree is gone: a second install, outside the source and
  # build trees, runs its demo from its own folder with no word of the source tree; where user and mount
  # namespaces are allowed an empty file system is mounted over the source tree (and the build tree) for
  # that run, so that nothing there can be read.
  set(tmp "$ENV{TMPDIR}")
  if(NOT tmp)
    set(tmp /tmp)
  endif()
  string(RANDOM LENGTH 10 suffix)
  set(alone "${tmp}/supportqt-installed-${suffix}")
  execute_process(COMMAND ${CMAKE_COMMAND} --install "${BINARY_DIR}" --prefix "${alone}"
                  RESULT_VARIABLE rc OUTPUT_QUIET)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install into ${alone} failed: ${rc}")
  endif()
  set(hide)
  execute_process(COMMAND unshare --user --map-root-user --mount true RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
  if(rc EQUAL 0)
    set(hidden "${SOURCE_DIR}")
    string(FIND "${BINARY_DIR}/" "${SOURCE_DIR}/" inside)
    if(NOT inside EQUAL 0)
      list(APPEND hidden "${BINARY_DIR}")
    endif()
    # Lines, not ";", since the command becomes a CMake list.
    set(script "for d in \"$@\"\ndo mount -t tmpfs none \"$d\" || exit 99\ndone\ntest -z \"$(ls -A '${SOURCE_DIR}')\" || exit 98\nexec ./bin/supportqt demo -o demo-out\n")
    set(hide unshare --user --map-root-user --mount sh -c "${script}" sh ${hidden})
    message(STATUS "installed demo: the source tree ${SOURCE_DIR} is hidden for the run")
  else()
    set(hide ./bin/supportqt demo -o demo-out)
    message(STATUS "installed demo: namespaces are not allowed here; the source tree stays in place, unnamed")
  endif()
  execute_process(COMMAND ${hide} WORKING_DIRECTORY "${alone}"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(failure)
  if(NOT rc EQUAL 0)
    set(failure "exit ${rc}")
  endif()
  string(FIND "${out}" "1. Read the netlist ${alone}/share/SupportQtDll/examples/netlists/buck_converter.cir\n" at)
  if(at LESS 0)
    set(failure "${failure} the demo did not read the installed examples")
  endif()
  string(FIND "${out}" "${SOURCE_DIR}" at)
  if(NOT at LESS 0)
    set(failure "${failure} the demo named the source tree")
  endif()
  foreach(f controls.cir sensitivity.html sensitivity.csv sensitivity_tornado.svg montecarlo.html
            montecarlo_histogram.svg worstcase.html index.html)
    if(NOT EXISTS "${alone}/demo-out/${f}")
      set(failure "${failure} no ${f}")
    endif()
  endforeach()
  if(EXISTS "${alone}/demo-out/index.html")
    file(READ "${alone}/demo-out/index.html" index)
    string(FIND "${index}" "<h1>Buck converter: the demo's reports</h1>" at)
    if(at LESS 0)
      set(failure "${failure} index.html is not the demo's page")
    endif()
  endif()
  file(REMOVE_RECURSE "${alone}")
  if(failure)
    message(FATAL_ERROR "installed demo without the source tree: ${failure}\n${out}\n${err}")
  endif()
  message(STATUS "installed demo without the source tree: ${out}")
endif()
if(EXISTS "${WORK_DIR}/prefix/bin/supportqt")
  execute_process(COMMAND "${WORK_DIR}/prefix/bin/supportqt" validate
                          "${SOURCE_DIR}/examples/results/buck_sensitivity.msw" --json
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "\"schema\": \"${WORK_DIR}/prefix/share/SupportQtDll/schemas/msw.xsd\"")
    message(FATAL_ERROR "installed tool failed: ${rc} ${out} ${err}")
  endif()
endif()
