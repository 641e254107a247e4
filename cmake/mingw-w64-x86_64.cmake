# SPDX-License-Identifier: MIT
# Cross build for Windows x64 with MinGW-w64 (posix thread model, so that
# std::thread, std::mutex and std::condition_variable are available).
#
# The libraries zel depends on come from a prefix of their own, given by the
# environment variable ZEL_WIN64_DEPS_PREFIX (scripts/windows-deps.sh makes
# one); pkg-config looks there and in the toolchain's own tree only.
#
# Every binary links the C++ and GCC runtimes statically, so that
# zel_utils.dll, zel_tracer.dll and the test programs need no
# libstdc++/libgcc/winpthread DLLs at run time.
#
# Programs built here run through Wine on the build machine (tests, gtest
# discovery).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZEL_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZEL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZEL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZEL_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZEL_MINGW_TRIPLE})
if(DEFINED ENV{ZEL_WIN64_DEPS_PREFIX})
  list(APPEND CMAKE_FIND_ROOT_PATH $ENV{ZEL_WIN64_DEPS_PREFIX})
  set(ENV{PKG_CONFIG_LIBDIR}
      "$ENV{ZEL_WIN64_DEPS_PREFIX}/lib/pkgconfig:/usr/${ZEL_MINGW_TRIPLE}/lib/pkgconfig")
else()
  set(ENV{PKG_CONFIG_LIBDIR} "/usr/${ZEL_MINGW_TRIPLE}/lib/pkgconfig")
endif()
# Host pkg-config files must never leak into the cross build.
set(ENV{PKG_CONFIG_PATH} "")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

find_program(ZEL_WINE_EXECUTABLE NAMES wine wine64 PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(ZEL_WINE_EXECUTABLE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEL_WINE_EXECUTABLE})
endif()
