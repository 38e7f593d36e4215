# What a host's build needs: the libraries, the exported headers, a CMake package and pkg-config files.  Components:
# runtime (what programs load), development, static (the static library), tool, python (the Python package).
set(XFER_ZSH_COMPLETIONS zsh/site-functions CACHE STRING
    "Where zsh looks for completions, below the data folder; Debian's packages have theirs in zsh/vendor-completions")
set(XFER_PYTHON_FOLDER "" CACHE STRING
    "Folder below the prefix for the Python package, which looks for the library in ../lib and ../bin of a folder python;
     empty: it is not installed")
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
list(JOIN XFER_CURL_PACKAGE " " xfer_curl_package)

# The libraries lie side by side, wherever that is; the tool finds them from where it lies.
set_target_properties(xfer PROPERTIES INSTALL_RPATH $ORIGIN)
if(XFER_BUILD_TOOLS)
  if(NOT WIN32)
    file(RELATIVE_PATH libraries_from_tool ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(xfer-get PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_tool})
  endif()
  install(TARGETS xfer-get RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  if(XFER_GET_TEXTS_FOLDER)
    install(FILES ${XFER_GET_TEXTS_FOLDER}/xfer-get.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    install(FILES ${XFER_GET_TEXTS_FOLDER}/xfer-get.bash RENAME xfer-get
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
    install(FILES ${XFER_GET_TEXTS_FOLDER}/_xfer-get DESTINATION ${CMAKE_INSTALL_DATADIR}/${XFER_ZSH_COMPLETIONS}
      COMPONENT tool)
    install(FILES ${XFER_GET_TEXTS_FOLDER}/xfer-get.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
      COMPONENT tool)
  endif()
endif()
install(TARGETS xfer xfer_keel EXPORT xfer-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY modules/xfer/include/ modules/keel/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/xfer)
install(EXPORT xfer-targets NAMESPACE xfer:: DESTINATION ${package_folder} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/xfer-config-version.cmake COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/xfer-config.cmake.in ${PROJECT_BINARY_DIR}/xfer-config.cmake
  INSTALL_DESTINATION ${package_folder})
install(FILES ${PROJECT_BINARY_DIR}/xfer-config.cmake ${PROJECT_BINARY_DIR}/xfer-config-version.cmake
  DESTINATION ${package_folder} COMPONENT development)
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/xfer.pc.in ${PROJECT_BINARY_DIR}/xfer.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/xfer.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(TARGETS xfer_static EXPORT xfer-static-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT static)
install(EXPORT xfer-static-targets NAMESPACE xfer:: DESTINATION ${package_folder} COMPONENT static)
if(NOT WIN32)  # the libcurl that is built for Windows has a CMake package alone
  configure_file(cmake/xfer-static.pc.in ${PROJECT_BINARY_DIR}/xfer-static.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/xfer-static.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT static)
endif()

# Python's own tools know an installed package by the folder *.dist-info beside it.
if(XFER_PYTHON_FOLDER)
  set(python_project ${PROJECT_SOURCE_DIR}/bindings/python/pyproject.toml)
  foreach(field description requires-python)
    file(STRINGS ${python_project} ${field} REGEX "^${field} = \"")
    string(REGEX REPLACE "^${field} = \"(.*)\"$" "\\1" ${field} "${${field}}")
  endforeach()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${python_project})
  configure_file(cmake/python-metadata.in ${PROJECT_BINARY_DIR}/python-metadata @ONLY)
  install(DIRECTORY bindings/python/xfer DESTINATION ${XFER_PYTHON_FOLDER} COMPONENT python
    FILES_MATCHING PATTERN "*.py" PATTERN py.typed PATTERN __pycache__ EXCLUDE)
  install(FILES ${PROJECT_BINARY_DIR}/python-metadata RENAME METADATA
    DESTINATION ${XFER_PYTHON_FOLDER}/xfer-${PROJECT_VERSION}.dist-info COMPONENT python)
endif()
