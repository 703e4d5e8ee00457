# The Debian packages, one per install component, from a build configured
# with -DCMAKE_INSTALL_PREFIX=/usr (the library then goes to the multiarch
# directory):
#   libzeltocomN     the shared library (N: the SONAME's major version)
#   libzeltocom-dev  headers, the .so link, pkg-config and CMake files, docs
#   zeltocom-tools   zeltocom and zeltosim, their manual pages, completion
# `cpack` in the build directory makes them; dependencies come from
# dpkg-shlibdeps (Debian packages dpkg-dev and file).
set(ZELTOCOM_DEBIAN_REVISION 1)
set(ZELTOCOM_DEBIAN_VERSION ${PROJECT_VERSION}-${ZELTOCOM_DEBIAN_REVISION})
set(ZELTOCOM_LIB_PACKAGE libzeltocom${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zeltocom)
set(CPACK_PACKAGE_VENDOR ZeltoCom)
set(CPACK_PACKAGE_CONTACT "ZeltoCom maintainers <maintainers@zeltocom.example>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ZeltoCom maintainers <maintainers@zeltocom.example>"
    CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ZELTOCOM_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://zeltocom.example/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIB_PACKAGE_NAME ${ZELTOCOM_LIB_PACKAGE})
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
# The shlibs file (for the package with the shared library), and the
# ldconfig trigger. CPack adds maintainer scripts that run ldconfig as well.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
# Each description's first line is the package's synopsis.
set(CPACK_DEBIAN_LIB_DESCRIPTION "library driving LED analysers and spectrometers over serial lines
A shared library with a C interface through which test-station software
drives LED analysers, spectrometers and their daisy-chained companions over
serial lines: it finds the ports, each instrument's baud rate, serial number
and model, speaks the instruments' text protocol and turns procedures such
as captures into single calls.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzeltocom-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${ZELTOCOM_LIB_PACKAGE} (= ${ZELTOCOM_DEBIAN_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "development files of ZeltoCom, the LED analyser library
The header zeltocom.h, the link to the shared library, a pkg-config file and
a CMake package (find_package(ZeltoCom)) for building programs against
ZeltoCom, with its documentation and example programs.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zeltocom-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
# dpkg-shlibdeps finds libedit2 and the C++ runtime, and this build's
# library, which has no shlibs file yet: its package is named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ZELTOCOM_LIB_PACKAGE} (= ${ZELTOCOM_DEBIAN_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "command-line tool and simulator for ZeltoCom instruments
zeltocom reaches LED analysers and spectrometers from a shell: lists the
ports, detects instruments, sends commands, captures on many ports at once,
on daisy chains and in sequences, with tables or JSON output. zeltosim plays
instruments on pseudo-terminals for anyone without hardware.")

# Each package's copyright file and changelog, in its own documentation
# directory; only the packages have them (EXCLUDE_FROM_ALL: a plain
# `cmake --install` leaves them out).
string(TIMESTAMP ZELTOCOM_DEBIAN_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog ${PROJECT_BINARY_DIR}/debian/changelog.Debian)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${changelog} @ONLY)
find_program(ZELTOCOM_GZIP gzip REQUIRED)
add_custom_command(OUTPUT ${changelog}.gz
  COMMAND ${ZELTOCOM_GZIP} -9nkf ${changelog}
  DEPENDS ${changelog}
  VERBATIM)
add_custom_target(zeltocom_debian_changelog ALL DEPENDS ${changelog}.gz)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${changelog}.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# A package built for another prefix would not be where Debian looks.
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/debian/cpack_checks.cmake)
file(CONFIGURE OUTPUT ${CPACK_PROJECT_CONFIG_FILE} CONTENT [[
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "The Debian packages need a build configured with "
                      "-DCMAKE_INSTALL_PREFIX=/usr (this one has @CMAKE_INSTALL_PREFIX@)")
endif()
]] @ONLY)
include(CPack)
