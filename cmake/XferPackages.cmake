# Release packages, which scripts/package makes: Debian packages (library, development files, tool, Python package), and
# for each system an archive of everything, which works wherever it is unpacked.
set(XFER_NOTICES "" CACHE PATH "Folder of the notices and of the bill of materials that packages carry")
set(XFER_MAINTAINER "xfer maintainers <maintainers@xfer.invalid>" CACHE STRING "Who packages name as their maintainer")
if(XFER_NOTICES)
  install(DIRECTORY ${XFER_NOTICES}/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/xfer COMPONENT runtime)
endif()

set(CPACK_PACKAGE_NAME xfer)
set(CPACK_PACKAGE_VENDOR xfer)
set(CPACK_PACKAGE_CONTACT ${XFER_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tool)
if(XFER_PYTHON_FOLDER)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(NOT WIN32)
  list(APPEND CPACK_COMPONENTS_ALL static)
  set(CPACK_STRIP_FILES ON)  # the Windows images are linked without symbols
endif()
# What is in an archive has the time of the commit, not of the build.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package-times.cmake)

# The archives.
string(TOLOWER ${CMAKE_SYSTEM_NAME} system)
set(CPACK_PACKAGE_FILE_NAME xfer-${PROJECT_VERSION}-${system}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)

# The Debian packages.
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/package-generator.cmake)
file(WRITE ${CPACK_PROJECT_CONFIG_FILE} "if(CPACK_GENERATOR STREQUAL DEB)
  set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY OFF)
endif()
")
set(CPACK_COMPONENT_STATIC_GROUP development)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(runtime_package libxfer${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# What the symbols tell is not all: options have numbers, which an older libcurl does not know.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4 (>= 7.87.0)")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The library, and the stand-in for the host's core library.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libxfer-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libcurl4-openssl-dev)  # what the static library needs
set(CPACK_COMPONENT_GROUP_DEVELOPMENT_DESCRIPTION "Headers, CMake package, pkg-config files and static library.")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME xfer-get)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION web)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "The command-line program.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-xfer)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.9), ${runtime_package} (= ${PROJECT_VERSION})")
# What Python compiles beside the modules goes with them.
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/python-package/postinst ${PROJECT_SOURCE_DIR}/cmake/python-package/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "The Python package.")
include(CPack)
