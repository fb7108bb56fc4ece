# Debian packages, one per install component, made by CPack's DEB generator
# (scripts/package.sh runs it):
#   runtime      libtqredis<SOVERSION>  the shared library and its SONAME link
#   development  libtqredis-dev         headers, libtqredis.so, tqredis.pc and
#                                       the CMake package
#   tools        tqredis-tools          tqredis-devdb, tqredis-stat, their
#                                       manual pages
# CPack rather than debhelper: the install rules already say what goes where,
# and the i386 and MIPS packages come from the cross build trees as they are,
# without a source package or cross build-dependencies to install.
#
# Packages are laid out for /usr: configure with -DCMAKE_INSTALL_PREFIX=/usr,
# so that the library lands in lib/<multiarch> and the packages of several
# architectures can be installed side by side (a workstation that builds
# device processes holds libtqredis-dev:mipsel next to its own).

set(TQREDIS_DEB_MAINTAINER "tqredis developers <tqredis@example.com>"
    CACHE STRING "Maintainer field of the Debian packages")

set(tq_lib_package libtqredis${PROJECT_VERSION_MAJOR})
# Built straight from the project's tree: a native version, no Debian revision.
set(TQREDIS_DEB_VERSION ${PROJECT_VERSION})

# The architecture the compiler builds for, in Debian's words, so that a
# cross build makes packages of its target.
execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpmachine
  OUTPUT_VARIABLE tq_gnu_type OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE tq_result ERROR_QUIET)
if(tq_result EQUAL 0)
  # dpkg-architecture warns that the build machine's compiler differs; the
  # answer is what counts.
  execute_process(COMMAND dpkg-architecture -t${tq_gnu_type} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE tq_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE tq_result ERROR_QUIET)
endif()
if(NOT tq_result EQUAL 0 OR NOT tq_deb_arch)
  set(tq_deb_arch "")  # CPack then asks dpkg for the build machine's
endif()

# What every package carries in share/doc/<package>: the copyright file and
# the changelog, compressed as Debian wants it (-n: no time stamp inside).
# Only packages get them: a plain `cmake --install` leaves them out.
find_program(TQREDIS_GZIP gzip REQUIRED)
# The changelog's date is that of the last commit (or SOURCE_DATE_EPOCH), not
# the build's: with Multi-Arch: same, every architecture's package must carry
# the very same file.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
    OUTPUT_VARIABLE tq_commit_time OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE tq_result ERROR_QUIET)
  if(tq_result EQUAL 0 AND tq_commit_time MATCHES "^[0-9]+$")
    set(ENV{SOURCE_DATE_EPOCH} ${tq_commit_time})
    set(tq_set_epoch ON)
  endif()
endif()
string(TIMESTAMP TQREDIS_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
if(tq_set_epoch)
  unset(ENV{SOURCE_DATE_EPOCH})
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in
  ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.gz
  COMMAND ${TQREDIS_GZIP} -9nkf ${PROJECT_BINARY_DIR}/debian/changelog
  DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog
  COMMENT "Compressing the Debian changelog")
add_custom_target(tqredis_deb_docs ALL
  DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.gz)
set(tq_components runtime development)
set(tq_packages ${tq_lib_package} libtqredis-dev)
if(TQREDIS_BUILD_TOOLS)
  list(APPEND tq_components tools)
  list(APPEND tq_packages tqredis-tools)
endif()
foreach(component package IN ZIP_LISTS tq_components tq_packages)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
                ${PROJECT_BINARY_DIR}/debian/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# The tools' manual pages, gzipped into share/man/man1.
if(TQREDIS_BUILD_TOOLS)
  set(tq_man_pages "")
  foreach(page tqredis-devdb.1 tqredis-stat.1)
    set(out ${PROJECT_BINARY_DIR}/man/${page}.gz)
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -E copy
              ${PROJECT_SOURCE_DIR}/docs/man/${page} ${PROJECT_BINARY_DIR}/man/${page}
      COMMAND ${TQREDIS_GZIP} -9nf ${PROJECT_BINARY_DIR}/man/${page}
      DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${page}
      COMMENT "Compressing the manual page ${page}")
    list(APPEND tq_man_pages ${out})
  endforeach()
  add_custom_target(tqredis_man ALL DEPENDS ${tq_man_pages})
  install(FILES ${tq_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tools)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tqredis)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "the tqredis developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_OUTPUT_FILE_PREFIX packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${tq_components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${TQREDIS_DEB_VERSION})
if(tq_deb_arch)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${tq_deb_arch})
endif()
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TQREDIS_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Debian ships binaries stripped (symbols are for -dbgsym packages, which we
# do not make); CPack strips with the toolchain's strip.
set(CPACK_STRIP_FILES ON)
# Depends from what the binaries link. The tools link the library of this
# very build, which no installed package provides yet: dpkg-shlibdeps finds
# it here, and the tools name their library package below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
# A shlibs file lets packages built against the library depend on it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${tq_lib_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The loader's cache is refreshed through dpkg's trigger. CPack also writes
# postinst and postrm scripts that call ldconfig themselves, which lintian
# only warns about.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "client library for the device's shared state in Redis
tqredis is the library every process of the device loads to read, write
and watch the device's shared state, held in three Redis databases reached
over local unix sockets. It wraps hiredis and exports a plain C interface.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtqredis-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${tq_lib_package} (= ${TQREDIS_DEB_VERSION}), libhiredis-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "client library for the device's shared state in Redis (development files)
tqredis is the library every process of the device loads to read, write
and watch the device's shared state, held in three Redis databases reached
over local unix sockets. It wraps hiredis and exports a plain C interface.
.
This package holds the headers, the pkg-config file (tqredis) and the CMake
package (find_package(tqredis), target tqredis::tqredis).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tqredis-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "${tq_lib_package} (= ${TQREDIS_DEB_VERSION}), redis-server")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "device database emulator and statistics viewer for tqredis
tqredis-devdb puts stock redis-servers behind the device's database
sockets and speaks as the device's servers do, so that device processes run
and can be tested on a workstation; tqredis-devdb run -- COMMAND serves for
the lifetime of one command. tqredis-stat shows the operation statistics
that processes using tqredis write.")

# Multi-Arch: the library and its development files of several architectures
# side by side; the tools serve any.
set(CPACK_TQREDIS_MULTIARCH
  "${tq_lib_package}=same;libtqredis-dev=same;tqredis-tools=foreign")
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/multiarch.cmake)

include(CPack)
