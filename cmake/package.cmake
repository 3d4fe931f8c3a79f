# What an installation has besides the programs, and the Debian package of it all (cpack).
#
# The example and its MIB are documentation: an operator's own configuration belongs below
# sysconfdir, where nothing is installed that an upgrade could overwrite.

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
install(DIRECTORY config/ examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME torvasin-snmp)
set(CPACK_PACKAGE_CONTACT "torvasin_snmp <root@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "snmp, prometheus-snmp-exporter")
include(CPack)
