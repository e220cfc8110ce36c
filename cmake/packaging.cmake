# Debian packages (cpack -G DEB in the build directory):
#   libcpic7     runtime: libcpic.so.7 and libsnanode.so.7
#   libcpic-dev  development: cpic.h, the node's headers, the .so links,
#                cpic.pc, the CMake package, cpic(3)
#   snanode      the node: snanoded, snanodectl, the sample programs, the
#                systemd unit, the configuration template, the pages
# Every install rule names its component; a rule that names none lands in
# the node's (CMAKE_INSTALL_DEFAULT_COMPONENT_NAME).
set(CPIC_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)

# The service and what the maintainer scripts install from.
install(FILES ${CPIC_PACKAGING_DIR}/systemd/snanoded.service
        DESTINATION lib/systemd/system COMPONENT node)
install(FILES ${CPIC_PACKAGING_DIR}/snanode.toml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/snanode COMPONENT node)
set(CPIC_SAMPLE_PROGRAMS aping apingd afcopy afcopyd demo_embedded)
install(TARGETS ${CPIC_SAMPLE_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT node)

# What Debian wants of every package: a copyright file and a compressed
# changelog in its documentation directory.
set(CPIC_DEB_NAMES "runtime:libcpic${PROJECT_VERSION_MAJOR}" "development:libcpic-dev"
                   "node:snanode")
configure_file(${CPIC_PACKAGING_DIR}/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog
               @ONLY)
add_custom_command(
  OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
  COMMAND gzip -9n < ${PROJECT_BINARY_DIR}/debian/changelog
          > ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
  DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog VERBATIM)
add_custom_target(debian_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
foreach(entry ${CPIC_DEB_NAMES})
  string(REPLACE ":" ";" pair ${entry})
  list(GET pair 0 component)
  list(GET pair 1 package)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
  install(FILES ${CPIC_PACKAGING_DIR}/debian/copyright
                ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME snanode)
set(CPACK_PACKAGE_VENDOR "The snanode project")
set(CPACK_PACKAGE_CONTACT "snanode maintainers <maintainers@snanode.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development node)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://snanode.invalid/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The node's programs link libcpic.so.7 of the runtime package, which the
# exact dependency below names; shlibdeps is to look for it in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/vcpic
                                                ${PROJECT_BINARY_DIR}/node)
set(CPIC_DEB_EXACT "libcpic${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# shlibs for the packages that link the libraries, and ldconfig run by
# trigger when they come or go.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CPIC_PACKAGING_DIR}/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "CPI-C library for SNA LU 6.2 conversations\n\
libcpic lets programs hold LU 6.2 conversations through the Common Programming\n\
Interface for Communications, with the node services of libsnanode: the node\n\
embedded in the program, or the snanoded daemon when one runs.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPIC_DEB_EXACT}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "CPI-C library for SNA LU 6.2 conversations (development files)\n\
The header cpic.h, the node's headers, the pkg-config file cpic.pc and the\n\
CMake package (find_package(cpic)) for building programs against libcpic.")

set(CPACK_DEBIAN_NODE_PACKAGE_DEPENDS "${CPIC_DEB_EXACT}, adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_NODE_PACKAGE_CONTROL_EXTRA
    ${CPIC_PACKAGING_DIR}/debian/postinst ${CPIC_PACKAGING_DIR}/debian/prerm
    ${CPIC_PACKAGING_DIR}/debian/postrm)
set(CPACK_DEBIAN_NODE_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_NODE_DESCRIPTION
    "SNA node daemon, tools and sample programs\n\
snanoded brokers LU 6.2 conversations between the programs of this host and\n\
starts invokable transaction programs; snanodectl shows what it does. With\n\
the sample programs aping, apingd, afcopy and afcopyd, and a systemd unit.")

include(CPack)
