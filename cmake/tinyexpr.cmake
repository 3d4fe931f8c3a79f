# The target tinyexpr: an installed TinyExpr when both its header and its library are found (also
# below CMAKE_PREFIX_PATH), else the drop-in of src/tinyexpr.

find_path(TINYEXPR_INCLUDE_DIR tinyexpr.h)
find_library(TINYEXPR_LIBRARY tinyexpr)
if(TINYEXPR_INCLUDE_DIR AND TINYEXPR_LIBRARY)
  message(STATUS "TinyExpr: installed, ${TINYEXPR_LIBRARY}")
  add_library(tinyexpr UNKNOWN IMPORTED)
  set_target_properties(tinyexpr PROPERTIES
    IMPORTED_LOCATION ${TINYEXPR_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${TINYEXPR_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES m)
else()
  message(STATUS "TinyExpr: none installed, building src/tinyexpr")
  add_subdirectory(src/tinyexpr)
endif()
