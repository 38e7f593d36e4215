# xfer_microsoft_import_library(<target> <library>): for <library>.dll, writes the list of its exports (<library>.def) and,
# where LLVM's tools are installed, the import library (<library>.lib) that Microsoft's tools link.  Only C entries are of
# use there: C++ names are the ones that the DLL's own compiler gives.
include(GNUInstallDirs)
if(WIN32)
  find_program(XFER_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
endif()

function(xfer_microsoft_import_library target library)
  set(definition ${PROJECT_BINARY_DIR}/microsoft/${library}.def)
  set(import_library ${PROJECT_BINARY_DIR}/microsoft/${library}.lib)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/microsoft)
  target_link_options(${target} PRIVATE -Wl,--output-def,${definition})
  if(XFER_LLVM_DLLTOOL)
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
      COMMAND ${XFER_LLVM_DLLTOOL} -m i386:x86-64 -d ${definition} -D ${library}.dll -l ${import_library})
    install(FILES ${import_library} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  endif()
  install(FILES ${definition} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endfunction()
