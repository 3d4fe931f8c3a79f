# What developers need besides the libraries and torvasin_agent.h: files by which pkg-config and
# CMake's find_package find them, and the header for authors of hosts. An installation may be moved
# as a whole.

include(CMakePackageConfigHelpers)

install(FILES src/module/torvasin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(module_dir ${CMAKE_INSTALL_LIBDIR}/torvasin)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_prefix /prefix/${pkgconfig_dir} /prefix)

# torvasin-snmp is for hosts, which load the module; torvasin-agent is for programs that link the
# library.
foreach(name torvasin-snmp torvasin-agent)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pkgconfig_dir})

  string(REPLACE - _ package ${name})
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${package})
  set(package_config ${PROJECT_BINARY_DIR}/${package}-config)
  configure_package_config_file(cmake/${package}-config.cmake.in ${package_config}.cmake
    INSTALL_DESTINATION ${package_dir}
    PATH_VARS module_dir CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
  write_basic_package_version_file(${package_config}-version.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${package_config}.cmake ${package_config}-version.cmake DESTINATION ${package_dir})
endforeach()
