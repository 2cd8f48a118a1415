# Debian packages: the library (libquarn-2.0-0), its development files (libquarn-dev) and
# the command-line tool (quarn), each with its copyright file and changelog, built by
# `cpack -G DEB` from a build configured with CMAKE_INSTALL_PREFIX=/usr
# (scripts/package.sh does both and checks the result).

set(QUARN_DEB_VERSION ${PROJECT_VERSION})
set(QUARN_DEB_MAINTAINER "The quarn developers <quarn@quarn.invalid>")
set(QUARN_DEB_PACKAGES runtime:libquarn-2.0-0 dev:libquarn-dev tool:quarn)

# Each package's /usr/share/doc/<package>/copyright and changelog.gz (gzip -9n; a native package).
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
find_program(QUARN_GZIP gzip)
if(QUARN_GZIP)
  execute_process(COMMAND ${QUARN_GZIP} -9nf -k ${PROJECT_BINARY_DIR}/debian/changelog)
endif()
foreach(entry ${QUARN_DEB_PACKAGES})
  string(REPLACE ":" ";" pair ${entry})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  if(QUARN_GZIP)
    install(FILES ${PROJECT_BINARY_DIR}/debian/changelog.gz
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} RENAME changelog.gz COMPONENT ${component})
  endif()
endforeach()

# The shared library needs the ldconfig trigger.
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quarn)
set(CPACK_PACKAGE_VERSION ${QUARN_DEB_VERSION})
set(CPACK_PACKAGE_CONTACT "${QUARN_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VENDOR "The quarn developers")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QUARN_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://quarn.invalid/")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the library the tool links in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libquarn-2.0-0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "hardware diagnostics library for the storage-controller board
quarn diagnoses the storage-controller board: memory and ECC, PCI Express
switches, SAS, SATA and NVMe storage, network ports, I2C sensors and power
supplies, battery, clock, TPM and serial ports.
.
This package holds the shared library libquarn-2.0.so.0.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libquarn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libquarn-2.0-0 (= ${QUARN_DEB_VERSION}), libgmp-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DESCRIPTION "quarn board diagnostics library (development files)
quarn diagnoses the storage-controller board: memory and ECC, PCI Express
switches, SAS, SATA and NVMe storage, network ports, I2C sensors and power
supplies, battery, clock, TPM and serial ports.
.
This package holds the headers, the pkg-config file and the CMake package.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME quarn)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libquarn-2.0-0 (= ${QUARN_DEB_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "command-line front end of the quarn board diagnostics
quarn lists, reads, sets and tests every device kind of the storage-controller
board, on the board itself or on its simulated twin (--board virtual), with
text or JSON output.")

include(CPack)
