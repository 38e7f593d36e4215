# Target xfer-reference: the API reference, in reference/html of the build folder.  Not built unless it is asked for; it
# fails when a name of the interface has no documentation.  There is none where Doxygen is not installed.
find_program(XFER_DOXYGEN doxygen)
mark_as_advanced(XFER_DOXYGEN)
find_package(Python3 COMPONENTS Interpreter)
if(XFER_DOXYGEN AND Python3_FOUND)
  set(reference_folder ${PROJECT_BINARY_DIR}/reference)
  configure_file(docs/reference/Doxyfile.in ${reference_folder}/Doxyfile @ONLY)
  add_custom_target(xfer-reference
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${reference_folder}/html
    COMMAND ${XFER_DOXYGEN} ${reference_folder}/Doxyfile
    WORKING_DIRECTORY ${reference_folder} VERBATIM)
endif()
