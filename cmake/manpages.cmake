# Manual pages: docs/man/NAME.SECTION.scd, turned into roff by scdoc and
# compressed as Debian wants them.  Without scdoc the build goes on without
# the pages (scripts/install-deps.sh installs it).
find_program(SCDOC scdoc)
if(NOT SCDOC)
  message(STATUS "scdoc not found: manual pages are not built")
  return()
endif()

file(GLOB CPIC_MAN_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.scd)
set(CPIC_MAN_DIR ${PROJECT_BINARY_DIR}/man)
set(CPIC_MAN_PAGES)
set(CPIC_MAN_ARCHIVES)

# One page: roff for the tests, gzip -9n (no name, no time stamp) to install.
function(cpic_man_page page roff_command roff_depends component)
  string(REGEX MATCH "[0-9]$" section ${page})
  add_custom_command(
    OUTPUT ${CPIC_MAN_DIR}/${page} ${CPIC_MAN_DIR}/${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CPIC_MAN_DIR}
    COMMAND ${roff_command} > ${CPIC_MAN_DIR}/${page}
    COMMAND gzip -9n < ${CPIC_MAN_DIR}/${page} > ${CPIC_MAN_DIR}/${page}.gz
    DEPENDS ${roff_depends}
    VERBATIM)
  install(FILES ${CPIC_MAN_DIR}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${component})
  set(CPIC_MAN_ARCHIVES ${CPIC_MAN_ARCHIVES} ${CPIC_MAN_DIR}/${page}.gz PARENT_SCOPE)
endfunction()

foreach(source ${CPIC_MAN_SOURCES})
  get_filename_component(page ${source} NAME_WLE)  # snanoded.8
  # The library's page goes with the headers; the rest with the node.
  set(component node)
  if(page MATCHES "\\.3$")
    set(component development)
  endif()
  cpic_man_page(${page} "sh;-c;${SCDOC} < \"$0\";${source}" ${source} ${component})
  list(APPEND CPIC_MAN_PAGES ${CPIC_MAN_DIR}/${page})
endforeach()

# Programs described on another program's page.
foreach(alias "afcopyd.1:afcopy.1" "demo_embedded.1:aping.1")
  string(REPLACE ":" ";" pair ${alias})
  list(GET pair 0 page)
  list(GET pair 1 target)
  cpic_man_page(${page} "sh;-c;echo '.so man1/${target}'" "" node)
endforeach()

add_custom_target(manpages ALL DEPENDS ${CPIC_MAN_ARCHIVES})
