# What `cmake --install` puts under its prefix: the library with its SONAME
# links, its headers, a pkg-config file and a CMake package for building
# against it, the programs with their manual pages and bash completion, the
# documentation. Three components, which are also the three Debian packages
# (cmake/debian.cmake): lib (the shared library), dev (what a build against
# it needs, and the documentation), tools (zeltocom and zeltosim).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZELTOCOM_SUMMARY "Drives LED analysers and spectrometers over serial lines")
set(ZELTOCOM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZeltoCom)
set(ZELTOCOM_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/zeltocom)

install(TARGETS zeltocom EXPORT ZeltoComTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT ZeltoComTargets NAMESPACE ZeltoCom:: DESTINATION ${ZELTOCOM_CMAKE_DIR}
        COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZeltoComConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/ZeltoComConfig.cmake
              ${PROJECT_BINARY_DIR}/ZeltoComConfigVersion.cmake
        DESTINATION ${ZELTOCOM_CMAKE_DIR} COMPONENT dev)
# The build tree is a package as well: -DZeltoCom_DIR=<build directory>.
export(EXPORT ZeltoComTargets NAMESPACE ZeltoCom:: FILE ${PROJECT_BINARY_DIR}/ZeltoComTargets.cmake)
configure_file(${CMAKE_CURRENT_LIST_DIR}/ZeltoComConfig.cmake
               ${PROJECT_BINARY_DIR}/ZeltoComConfig.cmake COPYONLY)

# Paths relative to the .pc file itself, so the installed tree (and the
# Debian package, installed under another prefix) can move.
file(RELATIVE_PATH ZELTOCOM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZELTOCOM_PC_TO_PREFIX ${ZELTOCOM_PC_TO_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zeltocom.pc.in ${PROJECT_BINARY_DIR}/zeltocom.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zeltocom.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${ZELTOCOM_DOC_DIR} COMPONENT dev)
if(EXISTS ${PROJECT_SOURCE_DIR}/docs)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${ZELTOCOM_DOC_DIR} COMPONENT dev)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${ZELTOCOM_DOC_DIR} COMPONENT dev)

# The programs, their manual pages and completion.
include(${CMAKE_CURRENT_LIST_DIR}/man_pages.cmake)
install(TARGETS zeltosim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
zeltocom_man_page(zeltosim "plays LED analysers and spectrometers on pseudo-terminals")
if(TARGET zeltocom_tool)
  # Under a system prefix the dynamic linker finds the library; elsewhere the
  # tool finds the one of its own tree wherever that tree was installed.
  if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(zeltocom_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  endif()
  install(TARGETS zeltocom_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  zeltocom_man_page(zeltocom_tool "drives LED analysers and spectrometers from a shell")
  install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/zeltocom
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
