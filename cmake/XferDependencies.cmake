# What the project needs from outside, as targets.
find_package(Threads REQUIRED)
if(WIN32)
  # The static libcurl of scripts/windows-deps brings its own package file and its dependencies.
  set(XFER_CURL_PACKAGE CURL CONFIG)
  find_package(${XFER_CURL_PACKAGE} REQUIRED)
  add_library(xfer_curl ALIAS CURL::libcurl_static)
else()
  set(XFER_CURL_PACKAGE CURL 7.87)
  find_package(${XFER_CURL_PACKAGE} REQUIRED)
  add_library(xfer_curl ALIAS CURL::libcurl)
endif()

# A header-only library whose headers lie in the system's include folder.  Links to just the wanted ones, in a folder
# of the build tree, keep a cross compiler away from the rest of that folder.
function(xfer_header_only_library target)
  set(folder ${PROJECT_BINARY_DIR}/headers/${target})
  file(MAKE_DIRECTORY ${folder})
  foreach(header IN LISTS ARGN)
    find_path(found_${target} ${header} PATHS /usr/include /usr/local/include NO_CMAKE_FIND_ROOT_PATH NO_CACHE)
    if(NOT found_${target})
      message(FATAL_ERROR "${header} was not found: install the package that holds it")
    endif()
    file(CREATE_LINK ${found_${target}}/${header} ${folder}/${header} SYMBOLIC)
    unset(found_${target})
  endforeach()
  add_library(${target} INTERFACE)
  target_include_directories(${target} SYSTEM INTERFACE ${folder})
endfunction()
