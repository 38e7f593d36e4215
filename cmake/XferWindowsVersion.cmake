# xfer_windows_version(<target> <library> <description>): gives a dynamic library the version that Windows shows for the
# file <library>.dll, which is the project's.  On other platforms it does nothing.
if(WIN32)
  enable_language(RC)
endif()

function(xfer_windows_version target library description)
  if(NOT WIN32)
    return()
  endif()
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${library}-version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/WindowsVersion.rc.in ${resource} @ONLY)
  # A target of its own, because the resource compiler does not understand the compiler's options.
  add_library(${target}_version OBJECT ${resource})
  target_sources(${target} PRIVATE $<TARGET_OBJECTS:${target}_version>)
endfunction()
