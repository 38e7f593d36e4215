# The options that every target of the project compiles and links with.
add_library(xfer_compile_options INTERFACE)
target_compile_options(xfer_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  $<$<BOOL:${XFER_WARNINGS_AS_ERRORS}>:-Werror>)
if(XFER_SANITIZE)
  target_compile_options(xfer_compile_options INTERFACE
    -fsanitize=${XFER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(xfer_compile_options INTERFACE -fsanitize=${XFER_SANITIZE})
endif()
if(XFER_FUZZ)
  target_compile_options(xfer_compile_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(WIN32)
  # GCC 12 warns at -O3, with which only this platform is built, of overlaps inside of std::string that cannot be.
  target_compile_options(xfer_compile_options INTERFACE
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
  target_compile_definitions(xfer_compile_options INTERFACE _WIN32_WINNT=0x0A00 NOMINMAX WIN32_LEAN_AND_MEAN UNICODE)
  # No run-time DLL of the compiler is needed beside what we ship; the loader may place the image anywhere.
  target_link_options(xfer_compile_options INTERFACE
    -static -Wl,--gc-sections,--dynamicbase,--high-entropy-va,--nxcompat $<$<CONFIG:Release>:-s>)
endif()
if(XFER_REPRODUCIBLE)
  # The last one that fits counts: the build's folder may lie inside of the project's.
  target_compile_options(xfer_compile_options INTERFACE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}/=build/)
  if(WIN32)
    target_link_options(xfer_compile_options INTERFACE -Wl,--no-insert-timestamp)
  endif()
endif()

# Those of what is shipped: what makes a fault harder to use.  Windows has its part in the image flags above.
add_library(xfer_shipped_options INTERFACE)
target_link_libraries(xfer_shipped_options INTERFACE xfer_compile_options)
if(NOT WIN32)
  include(CheckCXXCompilerFlag)
  include(CheckPIESupported)
  check_pie_supported()
  check_cxx_compiler_flag(-fcf-protection=full XFER_HAS_CF_PROTECTION)  # x86 only
  target_compile_options(xfer_shipped_options INTERFACE
    -fstack-protector-strong $<$<BOOL:${XFER_HAS_CF_PROTECTION}>:-fcf-protection=full>)
  target_link_options(xfer_shipped_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
  # The checked functions of the C library need an optimiser, and sanitizers check those functions themselves.
  if(NOT XFER_SANITIZE AND NOT XFER_FUZZ)
    target_compile_options(xfer_shipped_options INTERFACE
      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
endif()
