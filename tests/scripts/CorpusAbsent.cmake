# CorpusAbsent.cmake - without the shared corpus, every test that needs it is listed by CTest as a test
# that did not run, with its name, rather than counted among the passed ones: CTest runs them with
# SUPPORTQT_CORPUS_DIR naming an empty folder.
cmake_minimum_required(VERSION 3.16)
set(corpus_tests
  NetlistCorpus.EveryFileReadsInEveryDialectWithTheInvariantsKept
  NetlistCorpus.EveryDefinitionOfEveryLibraryReadsBackThroughLibraryStream
  ModelLibraryCorpus.EveryDefinitionReadsBackAsSpiceStreamReadsItsStretch
  ModelLibraryCorpus.SectionListsAgreeWithAnIndependentScript
  ModelLibraryCorpus.AKitCornerResolvesAcrossItsFilesAndExtractsARoundTrip
  Tool.CorpusLibrariesIndexAndReadBack
  Tool.JsonOfTheLibCommandsOnTheCorpusKitHasTheDocumentedKeys
  LibTool.AKitLibraryFromTheCorpus)
set(regex "")
foreach(t IN LISTS corpus_tests)
  string(REPLACE "." "\\." escaped "${t}")
  string(APPEND regex "|^${escaped}$")
endforeach()
string(SUBSTRING "${regex}" 1 -1 regex)

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/empty-corpus")
execute_process(COMMAND ${CMAKE_COMMAND} -E env "SUPPORTQT_CORPUS_DIR=${WORK_DIR}/empty-corpus"
                        "${CTEST_COMMAND}" --test-dir "${BINARY_DIR}" -R "${regex}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(REMOVE_RECURSE "${WORK_DIR}")
list(LENGTH corpus_tests count)
set(failure)
if(NOT rc EQUAL 0)
  set(failure "CTest exited with ${rc}")
endif()
string(FIND "${out}" "0 tests failed out of ${count}" at)
if(at LESS 0)
  set(failure "${failure}; CTest did not run the ${count} corpus tests")
endif()
string(FIND "${out}" "The following tests did not run:" at)
if(at LESS 0)
  set(failure "${failure}; CTest's summary lists no test that did not run")
endif()
foreach(t IN LISTS corpus_tests)
  string(REGEX MATCH "[0-9]+ - ${t} \\(Skipped\\)" listed "${out}")
  if(NOT listed)
    set(failure "${failure}; ${t} is not listed as skipped")
  endif()
endforeach()
if(failure)
  message(FATAL_ERROR "${failure}\n${out}\n${err}")
endif()
message(STATUS "${out}")
