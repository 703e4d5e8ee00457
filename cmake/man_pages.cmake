# Manual pages made from the programs' own --help by help2man (Debian:
# help2man), with the sections of cmake/man/NAME.h2m; without help2man there
# are none.
find_program(ZELTOCOM_HELP2MAN help2man)
find_program(ZELTOCOM_GZIP gzip)
set(ZELTOCOM_MAN_PAGES OFF)
if(NOT ZELTOCOM_HELP2MAN OR NOT ZELTOCOM_GZIP)
  message(STATUS "help2man not found (Debian: help2man): no manual pages")
elseif(CMAKE_CROSSCOMPILING)
  message(STATUS "Cross-compiling: the programs cannot run here, no manual pages")
elseif(NOT ZELTOCOM_SANITIZE AND NOT ZELTOCOM_TSAN)
  # Sanitized programs are for the tests; their runtimes may speak at exit.
  set(ZELTOCOM_MAN_PAGES ON)
endif()

# zeltocom_man_page(TARGET SUMMARY): NAME.1.gz in man1, NAME the program's
# file name; SUMMARY is the NAME section's line.
function(zeltocom_man_page target summary)
  if(NOT ZELTOCOM_MAN_PAGES)
    return()
  endif()
  get_target_property(name ${target} OUTPUT_NAME)
  if(NOT name)
    set(name ${target})
  endif()
  set(include ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/man/${name}.h2m)
  set(page ${PROJECT_BINARY_DIR}/man/${name}.1)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${ZELTOCOM_HELP2MAN} --no-info --name=${summary}
            --version-string=${PROJECT_VERSION} --include=${include}
            --output=${page} $<TARGET_FILE:${target}>
    COMMAND ${ZELTOCOM_GZIP} -9nf ${page}
    DEPENDS ${target} ${include}
    COMMENT "Manual page of ${name}"
    VERBATIM)
  add_custom_target(${name}_man_page ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
