# What an installation has besides the programs and the module, and the Debian package of it all
# (cpack).

install(FILES src/module/torvasin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY config/ examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  PATTERN .clang-format EXCLUDE)

# ---- Documents: all but those about the tree itself

file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR}/docs CONFIGURE_DEPENDS docs/*.md)
list(REMOVE_ITEM documents architecture.md compare.md)
set(document_dir ${PROJECT_BINARY_DIR}/doc)

# Copies a document, and leaves no path in it to what is not installed: a link elsewhere becomes its
# words, and a file of the sources its name.
function(torvasin_document name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS docs/${name})
  file(READ docs/${name} text)
  string(REPLACE "config/" "examples/" text "${text}")
  string(REPLACE "`src/module/torvasin.h`" "`torvasin.h`" text "${text}")
  foreach(kept IN ITEMS http "#" ${documents})
    string(REPLACE "](${kept}" "]@(${kept}" text "${text}")
  endforeach()
  string(REGEX REPLACE "\\[([^][]*)\\]\\([^)]*\\)" "\\1" text "${text}")
  string(REPLACE "]@(" "](" text "${text}")
  string(REGEX MATCHALL "`[A-Za-z0-9_.-]+/[A-Za-z0-9_./-]+`" spans "${text}")
  list(REMOVE_DUPLICATES spans)
  foreach(span IN LISTS spans)
    string(REPLACE "`" "" path ${span})
    if(EXISTS ${PROJECT_SOURCE_DIR}/${path} AND NOT path MATCHES "^examples/")
      get_filename_component(file ${path} NAME)
      string(REPLACE ${span} "`${file}` of the sources" text "${text}")
    endif()
  endforeach()
  file(WRITE ${document_dir}/${name} "${text}")
endfunction()

file(REMOVE_RECURSE ${document_dir})
foreach(document IN LISTS documents)
  torvasin_document(${document})
endforeach()
install(DIRECTORY ${document_dir}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)

# ---- Manual pages, from the documents that have the sections of one

find_program(LOWDOWN lowdown)
find_program(GZIP gzip)

function(torvasin_man_page page document)
  set(source ${document_dir}/${document})
  if(NOT LOWDOWN OR NOT GZIP OR NOT EXISTS ${source})
    message(STATUS "Left out: the manual page ${page}, for want of lowdown (Debian package lowdown)")
    return()
  endif()
  get_filename_component(name ${page} NAME_WLE)
  get_filename_component(section ${page} LAST_EXT)
  string(SUBSTRING ${section} 1 -1 section)
  set(manual ${PROJECT_BINARY_DIR}/man/${page})
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
  add_custom_command(OUTPUT ${manual}.gz
    COMMAND ${LOWDOWN} -s -Tman --out-no-smarty --nroff-nolinks -o ${manual}
      -M title=${name} -M section=${section} -M "source=torvasin_snmp ${PROJECT_VERSION}" ${source}
    COMMAND ${GZIP} -9nf ${manual}
    DEPENDS ${source} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY torvasin_manuals ${manual}.gz)
  install(FILES ${manual}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

torvasin_man_page(torvasin_host.8 torvasin_host.md)
torvasin_man_page(torvasin_config.1 torvasin_config.md)
torvasin_man_page(snmpmanager.ini.5 configuration.md)
get_property(manuals GLOBAL PROPERTY torvasin_manuals)
add_custom_target(manuals ALL DEPENDS ${manuals})

# ---- The package: besides an installation, what has its place in the system

if(NOT TORVASIN_HOST_BUILT OR NOT GZIP)
  return()
endif()
set(CPACK_PACKAGE_CONTACT "torvasin_snmp maintainers <maintainers@torvasin.example>")
set(package_root ${PROJECT_BINARY_DIR}/package_root)
file(REMOVE_RECURSE ${package_root})
set(package_doc ${package_root}/usr/share/doc/torvasin-snmp)
file(COPY packaging/copyright DESTINATION ${package_doc})
configure_file(packaging/changelog.in ${package_doc}/changelog @ONLY)
execute_process(COMMAND ${GZIP} -9nf ${package_doc}/changelog)
file(COPY packaging/torvasin-snmp.service DESTINATION ${package_root}/lib/systemd/system)

# The example, on SNMP's own port.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS config/snmpmanager.ini)
file(READ config/snmpmanager.ini text)
string(REGEX REPLACE "\n;[^\n]*\nport = 1161\n" "\nport = 161\n" text "${text}")
file(WRITE ${package_root}/etc/torvasin/snmpmanager.ini "${text}")
file(WRITE ${PROJECT_BINARY_DIR}/conffiles "/etc/torvasin/snmpmanager.ini\n")

set(CPACK_INSTALLED_DIRECTORIES ${package_root} /)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/prerm
  ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME torvasin-snmp)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "SNMP agent for meters of this machine")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Answers SNMPv1 and SNMPv2c requests with load, memory, network and other
meters of this machine, under the OIDs of a configuration file, through
formulas where they are wanted.

It comes with a service of systemd, which the installation does not start,
and with a program that checks a configuration. The agent itself is a module
that other programs can load.")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "snmp, prometheus-snmp-exporter")
include(CPack)
