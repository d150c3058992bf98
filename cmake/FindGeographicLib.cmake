# Finds GeographicLib (Debian: libgeographiclib-dev), which ships no CMake package of its own, and
# gives the imported target GeographicLib::GeographicLib. Installed beside kestrelvue's package
# config so a host's find_package(kestrelvue) finds it the same way.
find_path(GeographicLib_INCLUDE_DIR GeographicLib/Geodesic.hpp)
find_library(GeographicLib_LIBRARY NAMES GeographicLib Geographic)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(GeographicLib
  REQUIRED_VARS GeographicLib_LIBRARY GeographicLib_INCLUDE_DIR)
mark_as_advanced(GeographicLib_INCLUDE_DIR GeographicLib_LIBRARY)
if(GeographicLib_FOUND AND NOT TARGET GeographicLib::GeographicLib)
  add_library(GeographicLib::GeographicLib UNKNOWN IMPORTED)
  set_target_properties(GeographicLib::GeographicLib PROPERTIES
    IMPORTED_LOCATION "${GeographicLib_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${GeographicLib_INCLUDE_DIR}")
endif()
