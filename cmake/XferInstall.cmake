# What a host's build needs: the libraries, the exported headers, a CMake package and pkg-config files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
list(JOIN XFER_CURL_PACKAGE " " xfer_curl_package)

# The libraries lie side by side, wherever that is; the tool finds them from where it lies.
set_target_properties(xfer PROPERTIES INSTALL_RPATH $ORIGIN)
if(XFER_BUILD_TOOLS AND NOT WIN32)
  file(RELATIVE_PATH libraries_from_tool ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(xfer-get PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_tool})
endif()
install(TARGETS xfer xfer_keel EXPORT xfer-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS xfer_static EXPORT xfer-static-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY modules/xfer/include/ modules/keel/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/xfer)
install(EXPORT xfer-targets NAMESPACE xfer:: DESTINATION ${package_folder})
install(EXPORT xfer-static-targets NAMESPACE xfer:: DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/xfer-config-version.cmake COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/xfer-config.cmake.in ${PROJECT_BINARY_DIR}/xfer-config.cmake
  INSTALL_DESTINATION ${package_folder})
install(FILES ${PROJECT_BINARY_DIR}/xfer-config.cmake ${PROJECT_BINARY_DIR}/xfer-config-version.cmake
  DESTINATION ${package_folder})
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
set(pkg_config_files ${PROJECT_BINARY_DIR}/xfer.pc)
configure_file(cmake/xfer.pc.in ${PROJECT_BINARY_DIR}/xfer.pc @ONLY)
if(NOT WIN32)  # the libcurl that is built for Windows has a CMake package alone
  list(APPEND pkg_config_files ${PROJECT_BINARY_DIR}/xfer-static.pc)
  configure_file(cmake/xfer-static.pc.in ${PROJECT_BINARY_DIR}/xfer-static.pc @ONLY)
endif()
install(FILES ${pkg_config_files} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
