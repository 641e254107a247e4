# Install rules: the two shared libraries, the public headers under
# include/zel/ (so that a consumer writes #include "utils/looper.h"), a CMake
# package (find_package(zel CONFIG) giving zel::utils and zel::tracer), a
# pkg-config file, and the Debian packages CPack makes from all of them.

include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel)

# Installed beside each other: libzel_utils finds libzel_tracer in its own
# directory wherever the tree is put.
set_target_properties(zel_utils PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS zel_utils zel_tracer
  EXPORT zelTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

# The public headers; utils/platform.h is the library's own.
install(FILES
  utils/config_file.h
  utils/config_parser.h
  utils/export.h
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

# pkg-config: paths relative to ${prefix} when the install directories are,
# so that a moved tree still works with PKG_CONFIG_PATH.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(ZEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(ZEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(cmake/zel.pc.in ${PROJECT_BINARY_DIR}/zel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# Debian packages: libzel0 with the shared libraries, libzel-dev with the
# headers, the CMake package and the pkg-config file.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zel)
set(CPACK_PACKAGE_VENDOR "zel developers")
set(CPACK_PACKAGE_CONTACT "zel developers <zel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Asynchronous rotating log, message loops, timers, configuration and event reporting")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1, libglib2.0-0 (>= 2.74), libjsoncpp25 (>= 1.9.5), libcurl4 (>= 7.88), zlib1g (>= 1:1.2.13)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libzel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libglib2.0-dev, libjsoncpp-dev, pkg-config")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "zel utility libraries (runtime)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "zel utility libraries (headers, CMake package, pkg-config)")
include(CPack)
