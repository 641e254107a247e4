# SPDX-License-Identifier: MIT
# Install rules: the two shared libraries, the public headers under
# include/zel/ (so that a consumer writes #include "utils/looper.h"), a CMake
# package (find_package(zel CONFIG) giving zel::utils and zel::tracer), a
# pkg-config file, and the Debian packages CPack makes from all of them.

include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel)

# A tree installed into /usr is the Debian packages' layout: the libraries
# sit in the system's library directory, and the packages get the files
# Debian wants beside them (cmake/ZelDebian.cmake).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZEL_SYSTEM_LAYOUT ON)
else()
  set(ZEL_SYSTEM_LAYOUT OFF)
endif()

# Installed beside each other elsewhere: libzel_utils finds libzel_tracer in
# its own directory wherever the tree is put. The system's library directory
# needs no search path of its own.
if(NOT ZEL_SYSTEM_LAYOUT)
  set_target_properties(zel_utils PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()

# Each shared library is a runtime component of its own (one Debian package
# per soname); the links without version, the static archives and the
# import libraries go with the headers.
install(TARGETS zel_utils
  EXPORT zelTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT utils
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT utils NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(TARGETS zel_tracer
  EXPORT zelTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tracer
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT tracer NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

# The public headers; utils/platform.h is the library's own.
install(FILES
  utils/config_file.h
  utils/config_parser.h
  utils/export.h
  utils/log_levelled_backend.h
  ${ZEL_LOG_BACKEND_HEADERS}
  utils/logger.h
  utils/looper.h
  utils/process_path.h
  utils/timer.h
  utils/worker.h
  utils/zel_client_tracker.h
  utils/zel_string.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel/utils COMPONENT development)
install(FILES tracer/tracer_client.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel/tracer COMPONENT development)

install(EXPORT zelTargets NAMESPACE zel:: DESTINATION ${ZEL_INSTALL_CMAKEDIR}
        COMPONENT development)
configure_package_config_file(cmake/zelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zelConfig.cmake INSTALL_DESTINATION ${ZEL_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelConfig.cmake ${PROJECT_BINARY_DIR}/zelConfigVersion.cmake
  DESTINATION ${ZEL_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config: relocatable. prefix is found from the directory the .pc file
# is read from, and libdir and includedir are relative to it, so that the
# file is right wherever the tree was installed (cmake --install --prefix,
# DESTDIR) or moved to later. Absolute install directories stay absolute.
set(ZEL_PC_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${ZEL_PC_INSTALL_DIR}")
  set(ZEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  # From <prefix>/<libdir>/pkgconfig back to <prefix>: one ".." per level.
  file(RELATIVE_PATH ZEL_PC_UP "/zel-prefix/${ZEL_PC_INSTALL_DIR}" "/zel-prefix")
  string(REGEX REPLACE "/$" "" ZEL_PC_UP "${ZEL_PC_UP}")
  set(ZEL_PC_PREFIX "\${pcfiledir}/${ZEL_PC_UP}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(ZEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(ZEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
# Shared libraries keep GLib, JsonCpp, libcurl and zlib to themselves; only a
# static link needs them (pkg-config --static).
if(ZEL_BUILD_SHARED)
  set(ZEL_PC_REQUIRES_PRIVATE "")
else()
  set(ZEL_PC_REQUIRES_PRIVATE "Requires.private: glib-2.0 jsoncpp libcurl zlib")
endif()
configure_file(cmake/zel.pc.in ${PROJECT_BINARY_DIR}/zel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zel.pc DESTINATION ${ZEL_PC_INSTALL_DIR}
        COMPONENT development)

# The Debian packages are made by the top-level project only: a parent that
# pulls zel in has its own CPack configuration.
if(PROJECT_IS_TOP_LEVEL)
  include(cmake/ZelDebian.cmake)
endif()
