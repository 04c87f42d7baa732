# SupportQtLibrary.cmake - the settings the project's two shared libraries have in common.

# Gives the shared library `target` hidden symbols by default and the project's version and, under GCC,
# the flags that keep it unloadable and bind its internal calls directly.
function(supportqt_library_settings target)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Keep the library unloadable: unique symbols would pin it in memory. Calls inside the library
    # bind directly (no interposition), so its hot paths inline.
    target_compile_options(${target} PRIVATE -fno-gnu-unique -fno-semantic-interposition)
  endif()
endfunction()
