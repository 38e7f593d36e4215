# Cross-builds for 64-bit Windows with Debian's MinGW-w64 (posix threads).  XFER_WINDOWS_DEPS, from the command line or
# the environment, is the folder that scripts/windows-deps prints.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_SYSTEM_VERSION 10.0)

set(XFER_WINDOWS_DEPS "$ENV{XFER_WINDOWS_DEPS}" CACHE PATH "Libraries for Windows, as scripts/windows-deps builds them")
if(NOT XFER_WINDOWS_DEPS)
  message(FATAL_ERROR "XFER_WINDOWS_DEPS is not set: give it the folder that scripts/windows-deps prints")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES XFER_WINDOWS_DEPS)

set(host x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${host}-gcc-posix)
set(CMAKE_CXX_COMPILER ${host}-g++-posix)
set(CMAKE_RC_COMPILER ${host}-windres)
set(CMAKE_AR ${host}-gcc-ar-posix CACHE FILEPATH "Archiver")
set(CMAKE_RANLIB ${host}-gcc-ranlib-posix CACHE FILEPATH "Archive indexer")
set(CMAKE_DLLTOOL ${host}-dlltool CACHE FILEPATH "Import library maker")

set(CMAKE_FIND_ROOT_PATH ${XFER_WINDOWS_DEPS} /usr/${host})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# What the library needs goes into it; nothing is shipped beside it.
set(OPENSSL_USE_STATIC_LIBS ON)
set(ZLIB_USE_STATIC_LIBS ON)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
