# Installs the documents, in the directories of the tree so that their links work, and the manual
# pages.

install(FILES README.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY config docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
  PATTERN .clang-format EXCLUDE)

find_program(LOWDOWN lowdown)
if(NOT LOWDOWN)
  message(STATUS "Skipping the manual pages. Missing: lowdown (Debian package lowdown)")
endif()

# torvasin_manual(NAME SECTION DOCUMENT): makes a manual page from a document. Its title, the first
# heading, is for browsers only: the page omits it and raises the other headings by one level.
function(torvasin_manual name section document)
  if(NOT LOWDOWN)
    return()
  endif()
  set(source ${PROJECT_SOURCE_DIR}/docs/${document})
  set(page ${PROJECT_BINARY_DIR}/man/${name}.${section})
  # The first line of a page with tables tells man(1) to run tbl.
  file(WRITE ${PROJECT_BINARY_DIR}/man/first_line "'\\\" t\n")
  add_custom_command(OUTPUT ${page}
    COMMAND sed -e 1d -e "s/^##/#/" ${source} |
      ${LOWDOWN} -s -Tman --out-no-smarty --nroff-nolinks --parse-no-intraemph -o ${page}.body
      -M title=${name} -M section=${section} -M "source=torvasin_snmp ${PROJECT_VERSION}"
    COMMAND ${CMAKE_COMMAND} -E cat ${PROJECT_BINARY_DIR}/man/first_line ${page}.body > ${page}
    DEPENDS ${source} VERBATIM)
  add_custom_target(${name}.${section} ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

torvasin_manual(torvasin_host 8 torvasin_host.md)
torvasin_manual(torvasin_config 1 torvasin_config.md)
torvasin_manual(snmpmanager.ini 5 configuration.md)
