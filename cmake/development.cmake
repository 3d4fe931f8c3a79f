# What the developer of a host needs besides the module and the probe: the header, and where to find
# all of it, for pkg-config and for CMake's find_package. An installation may be moved as a whole.

include(CMakePackageConfigHelpers)

install(FILES src/module/torvasin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(module_dir ${CMAKE_INSTALL_LIBDIR}/torvasin)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_prefix /prefix/${pkgconfig_dir} /prefix)
configure_file(cmake/torvasin-snmp.pc.in torvasin-snmp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/torvasin-snmp.pc DESTINATION ${pkgconfig_dir})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/torvasin_snmp)
set(package_config ${PROJECT_BINARY_DIR}/torvasin_snmp-config)
configure_package_config_file(cmake/torvasin_snmp-config.cmake.in ${package_config}.cmake
  INSTALL_DESTINATION ${package_dir} PATH_VARS module_dir CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${package_config}-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${package_config}.cmake ${package_config}-version.cmake DESTINATION ${package_dir})
