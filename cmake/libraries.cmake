# The module's libraries, as the targets inih and tinyexpr. CMAKE_PREFIX_PATH is searched too.

find_package(Threads REQUIRED)

# torvasin_find_library(NAME HEADER): adds the imported target NAME if it finds both the header and
# the library.
function(torvasin_find_library name header)
  string(TOUPPER ${name} upper)
  find_path(${upper}_INCLUDE_DIR ${header})
  find_library(${upper}_LIBRARY ${name})
  if(${upper}_INCLUDE_DIR AND ${upper}_LIBRARY)
    add_library(${name} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES
      IMPORTED_LOCATION ${${upper}_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${${upper}_INCLUDE_DIR})
  endif()
endfunction()

torvasin_find_library(inih ini.h)
if(NOT TARGET inih)
  message(FATAL_ERROR "inih not found. It parses the configuration (Debian package libinih-dev).")
endif()

# The value of a formula must not depend on the machine that builds the module. An installed
# TinyExpr reads numbers in the locale of the process, so it is used only on request.
set(TORVASIN_TINYEXPR own CACHE STRING "TinyExpr for formulas: own (src/tinyexpr) or system")
set_property(CACHE TORVASIN_TINYEXPR PROPERTY STRINGS own system)
if(TORVASIN_TINYEXPR STREQUAL own)
  message(STATUS "TinyExpr: src/tinyexpr (-DTORVASIN_TINYEXPR=system selects an installed one)")
  add_subdirectory(src/tinyexpr)
elseif(TORVASIN_TINYEXPR STREQUAL system)
  torvasin_find_library(tinyexpr tinyexpr.h)
  if(NOT TARGET tinyexpr)
    message(FATAL_ERROR "TORVASIN_TINYEXPR is system, but no installed TinyExpr was found.")
  endif()
  message(STATUS "TinyExpr: ${TINYEXPR_LIBRARY}, whose numbers depend on the locale of the process")
  target_link_libraries(tinyexpr INTERFACE m)
else()
  message(FATAL_ERROR "TORVASIN_TINYEXPR is ${TORVASIN_TINYEXPR}, but must be own or system.")
endif()
