# The module's libraries, as the targets inih and tinyexpr. Found below CMAKE_PREFIX_PATH too.

find_package(Threads REQUIRED)

# torvasin_find_library(NAME HEADER): an imported target when both the header and the library are
# found, else none.
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
  message(FATAL_ERROR "inih is not found. It reads the configuration (Debian package libinih-dev).")
endif()

torvasin_find_library(tinyexpr tinyexpr.h)
if(TARGET tinyexpr)
  message(STATUS "TinyExpr: installed, ${TINYEXPR_LIBRARY}")
  target_link_libraries(tinyexpr INTERFACE m)
else()
  message(STATUS "TinyExpr: none installed, building src/tinyexpr")
  add_subdirectory(src/tinyexpr)
endif()
