# SPDX-License-Identifier: MIT
# Debian packages, made by `cpack` in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr:
#   libzel-utils0   libzel_utils.so.0 (section libs)
#   libzel-tracer0  libzel_tracer.so.0 (section libs)
#   libzel-dev      headers, links without version, CMake package and
#                   pkg-config file (section libdevel)
# The dependencies on other packages are computed by dpkg-shlibdeps from the
# libraries themselves; those between the three packages come from the
# component dependencies below and name the exact version.

# A product that ships the packages sets its own maintainer and its Debian
# revision (the upstream version is zel's own, from project()):
#   cmake ... -DZEL_DEB_MAINTAINER="Name <address>" -DZEL_DEB_REVISION=3
# gives packages of version 0.1.0-3. The default maintainer is a placeholder
# whose address cannot exist.
set(ZEL_DEB_MAINTAINER "zel developers <zel-devel@lists.zel.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(ZEL_DEB_REVISION "" CACHE STRING "Debian revision of the packages (empty: none)")
set(ZEL_DEB_VERSION "${PROJECT_VERSION}")
if(NOT ZEL_DEB_REVISION STREQUAL "")
  if(NOT ZEL_DEB_REVISION MATCHES "^[A-Za-z0-9.+~]+$")
    message(FATAL_ERROR "zel: ZEL_DEB_REVISION '${ZEL_DEB_REVISION}' may hold only letters, "
                        "digits and . + ~")
  endif()
  set(CPACK_DEBIAN_PACKAGE_RELEASE "${ZEL_DEB_REVISION}")
  string(APPEND ZEL_DEB_VERSION "-${ZEL_DEB_REVISION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zel)
set(CPACK_PACKAGE_VENDOR "the zel authors")
set(CPACK_PACKAGE_CONTACT "${ZEL_DEB_MAINTAINER}")
# Each package's description (first line: its synopsis) is its own, below;
# no project-wide summary is put in front of it.
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL utils tracer development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Each runtime package declares its library in a shlibs file, so that
# programs packaged against it get their dependency computed in turn.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# libzel_utils needs libzel_tracer, which is in no installed package yet:
# dpkg-shlibdeps finds it in the build tree (its package dependency is the
# component dependency below).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The dynamic linker's cache is refreshed by dpkg's ldconfig trigger once
# per run, as Debian's library packages do (CPack's own maintainer scripts
# still call ldconfig as well, which does no harm).
set(CPACK_DEBIAN_UTILS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_TRACER_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_STRIP_FILES ON)

set(ZEL_DEB_utils_NAME libzel-utils${PROJECT_VERSION_MAJOR})
set(ZEL_DEB_tracer_NAME libzel-tracer${PROJECT_VERSION_MAJOR})
set(ZEL_DEB_development_NAME libzel-dev)

set(CPACK_DEBIAN_UTILS_PACKAGE_NAME ${ZEL_DEB_utils_NAME})
set(CPACK_COMPONENT_UTILS_DEPENDS tracer)
set(CPACK_DEBIAN_UTILS_DESCRIPTION
    "zel utility library (log, message loops, configuration)
libzel_utils: an asynchronous rotating log, a message loop with workers
and timers, INI and key-file configuration, string parsers, and device and
error event reports posted as JSON through the tracing client.")

set(CPACK_DEBIAN_TRACER_PACKAGE_NAME ${ZEL_DEB_tracer_NAME})
set(CPACK_DEBIAN_TRACER_DESCRIPTION
    "zel tracing client (JSON documents to a file or HTTP)
libzel_tracer: the client that zel's event reports are posted through. It
appends each document to a file or sends it by HTTP POST from a sender
thread of its own, with retries and a bounded queue.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${ZEL_DEB_development_NAME})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# Headers only need the runtime packages: GLib, JsonCpp and libcurl stay
# inside the shared libraries.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS utils tracer)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "zel utility libraries (development files)
The headers of libzel_utils and libzel_tracer, the links to link against,
a CMake package (find_package(zel) gives zel::utils and zel::tracer) and a
pkg-config file (zel).")

# Every Debian package carries its copyright file and its changelog in
# /usr/share/doc/<package>/; the changelog is compressed with gzip -9n (no
# name nor time stamp in the header) as Debian policy asks. A package with a
# Debian revision is no longer native: its changelog is changelog.Debian.
set(ZEL_DEB_CHANGELOG changelog)
if(NOT ZEL_DEB_REVISION STREQUAL "")
  set(ZEL_DEB_CHANGELOG changelog.Debian)
endif()
string(TIMESTAMP ZEL_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component utils tracer development)
  set(ZEL_DEB_PACKAGE ${ZEL_DEB_${component}_NAME})
  set(ZEL_DEB_DOC_DIR ${PROJECT_BINARY_DIR}/debian/${ZEL_DEB_PACKAGE})
  file(REMOVE ${ZEL_DEB_DOC_DIR}/changelog.gz ${ZEL_DEB_DOC_DIR}/changelog.Debian.gz)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in
                 ${ZEL_DEB_DOC_DIR}/${ZEL_DEB_CHANGELOG} @ONLY)
  execute_process(COMMAND gzip -9nf ${ZEL_DEB_DOC_DIR}/${ZEL_DEB_CHANGELOG}
                  RESULT_VARIABLE zel_gzip_result)
  if(NOT zel_gzip_result EQUAL 0)
    message(FATAL_ERROR "zel: gzip of the Debian changelog failed (${zel_gzip_result})")
  endif()
  if(ZEL_SYSTEM_LAYOUT)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
                  ${ZEL_DEB_DOC_DIR}/${ZEL_DEB_CHANGELOG}.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${ZEL_DEB_PACKAGE} COMPONENT ${component})
  endif()
endforeach()

include(CPack)
