# What a host's build needs: the libraries, the exported headers, a CMake package and pkg-config files.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The libraries lie side by side, wherever that is.
set_target_properties(xfer PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS xfer xfer_keel EXPORT xfer-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY modules/xfer/include/ modules/keel/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/xfer)
install(EXPORT xfer-targets NAMESPACE xfer:: DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/xfer-config-version.cmake COMPATIBILITY SameMajorVersion)
configure_package_config_file(cmake/xfer-config.cmake.in ${PROJECT_BINARY_DIR}/xfer-config.cmake
  INSTALL_DESTINATION ${package_folder})
install(FILES ${PROJECT_BINARY_DIR}/xfer-config.cmake ${PROJECT_BINARY_DIR}/xfer-config-version.cmake
  DESTINATION ${package_folder})
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/xfer.pc.in ${PROJECT_BINARY_DIR}/xfer.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/xfer.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
