# libedit, the BSD line editor with a readline interface (Debian:
# libedit-dev). Gives Libedit_FOUND and the imported target Libedit::Libedit.
# -DCMAKE_DISABLE_FIND_PACKAGE_Libedit=ON builds as if it were missing.
find_path(Libedit_INCLUDE_DIR editline/readline.h)
find_library(Libedit_LIBRARY edit)
mark_as_advanced(Libedit_INCLUDE_DIR Libedit_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libedit REQUIRED_VARS Libedit_LIBRARY Libedit_INCLUDE_DIR)

if(Libedit_FOUND AND NOT TARGET Libedit::Libedit)
  add_library(Libedit::Libedit UNKNOWN IMPORTED)
  set_target_properties(Libedit::Libedit PROPERTIES
    IMPORTED_LOCATION ${Libedit_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${Libedit_INCLUDE_DIR})
endif()
