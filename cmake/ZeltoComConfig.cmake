# find_package(ZeltoCom) gives the imported target ZeltoCom::zeltocom, the
# shared library with its headers.
include("${CMAKE_CURRENT_LIST_DIR}/ZeltoComTargets.cmake")
