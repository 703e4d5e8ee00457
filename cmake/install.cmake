# What `cmake --install` puts under its prefix: the library with its SONAME
# links, its headers, a pkg-config file and a CMake package for building
# against it, the programs, the documentation; and the Debian package of the
# same through CPack.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Drives LED analysers and spectrometers over serial lines")
set(ZELTOCOM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZeltoCom)
set(ZELTOCOM_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/zeltocom)

install(TARGETS zeltocom EXPORT ZeltoComTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT ZeltoComTargets NAMESPACE ZeltoCom:: DESTINATION ${ZELTOCOM_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZeltoComConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/ZeltoComConfig.cmake
              ${PROJECT_BINARY_DIR}/ZeltoComConfigVersion.cmake
        DESTINATION ${ZELTOCOM_CMAKE_DIR})
# The build tree is a package as well: -DZeltoCom_DIR=<build directory>.
export(EXPORT ZeltoComTargets NAMESPACE ZeltoCom:: FILE ${PROJECT_BINARY_DIR}/ZeltoComTargets.cmake)
configure_file(${CMAKE_CURRENT_LIST_DIR}/ZeltoComConfig.cmake
               ${PROJECT_BINARY_DIR}/ZeltoComConfig.cmake COPYONLY)

# Paths relative to the .pc file itself, so the installed tree (and the
# Debian package, installed under another prefix) can move.
file(RELATIVE_PATH ZELTOCOM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZELTOCOM_PC_TO_PREFIX ${ZELTOCOM_PC_TO_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zeltocom.pc.in ${PROJECT_BINARY_DIR}/zeltocom.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zeltocom.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS zeltosim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The command-line tool, when the tree has one; deferred to the end of the
# top directory, where every subdirectory has defined its targets.
function(zeltocom_install_tool)
  if(TARGET zeltocom_tool)
    # It finds the library of its own tree wherever that tree was installed.
    set_target_properties(zeltocom_tool PROPERTIES
      INSTALL_RPATH "$ORIGIN/${ZELTOCOM_BIN_TO_LIB}")
    install(TARGETS zeltocom_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endfunction()
file(RELATIVE_PATH ZELTOCOM_BIN_TO_LIB /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
cmake_language(DEFER CALL zeltocom_install_tool)

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${ZELTOCOM_DOC_DIR})
if(EXISTS ${PROJECT_SOURCE_DIR}/docs)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${ZELTOCOM_DOC_DIR})
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${ZELTOCOM_DOC_DIR})

# cpack -G DEB, run in the build directory.
set(CPACK_PACKAGE_NAME zeltocom)
set(CPACK_PACKAGE_VENDOR ZeltoCom)
set(CPACK_PACKAGE_DESCRIPTION "A shared library with a C interface through which \
test-station software drives LED analysers, spectrometers and their daisy-chained \
companions over serial lines; with its headers, pkg-config and CMake files, and \
zeltosim, which plays instruments on pseudo-terminals.")
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ZeltoCom maintainers <maintainers@zeltocom.example>"
    CACHE STRING "Maintainer field of the Debian package")
# Dependencies from dpkg-shlibdeps; the shlibs file and the ldconfig trigger
# for libzeltocom.so.N. Both need the programs `file` and `dpkg-shlibdeps`
# (Debian packages file and dpkg-dev).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
