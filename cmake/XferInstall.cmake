# What a host's build needs: the libraries, the exported headers, a CMake package and pkg-config files.  Components:
# runtime (what programs load), development, static (the static library), tool.
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
