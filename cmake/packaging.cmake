# `cpack` makes the Debian packages of this build, of the kind of processor that it was built for:
# kivapp, and for other programs libkivevent0, libkivevent-dev and python3-kivevent.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kivapp)
set(CPACK_PACKAGE_VENDOR kivApp)
set(CPACK_PACKAGE_CONTACT "kivApp maintainers <kivapp@localhost>")
set(CPACK_DEBIAN_DAEMON_DESCRIPTION "telemetry daemon for a television set
Other processes post small JSON events on a POSIX message queue. The daemon
keeps those that the server's configuration selects and the user's consent
allows, stores them through power cuts, gives each a trustworthy time, and
uploads them in packets to Amazon Kinesis Firehose, and announced files to
Amazon S3. kivsend posts events from the command line, and kivstat says whether
they arrive and, if not, why.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL daemon library development python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME kivapp)
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "ca-certificates, net-tools")
# The network's state is asked of ping.
set(KIV_DEBIAN_PROGRAMS "iputils-ping | inetutils-ping")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps asks the host's own packages; these are what it finds for the native build, and
  # the packages' test compares them with the libraries that the programs name.
  set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "libc6 (>= 2.34), libcurl4 (>= 7.16.2), libgcc-s1 (>= 3.5), \
libjansson4 (>= 2.14), libsqlite3-0 (>= 3.8.7), libssl3 (>= 3.0.0), libstdc++6 (>= 12), \
libuuid1 (>= 2.16), ${KIV_DEBIAN_PROGRAMS}")
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6 (>= 2.34), libjansson4 (>= 2.14)")
else()
  set(CPACK_DEBIAN_DAEMON_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS ${KIV_DEBIAN_PROGRAMS})
endif()

# The client library.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkivevent0)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "library to post events for kivApp
C library with which programs post telemetry events for the daemon kivApp. It
never waits unless asked, goes on after a restart of the daemon, and refuses in
words what the daemon would lose.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkivevent-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libkivevent0 (= ${PROJECT_VERSION}), libjansson-dev, libc6-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "library to post events for kivApp: headers
Headers for C and C++, static library and pkg-config file of libkivevent.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kivevent)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${KIV_INSTALLED}/python/prerm)
configure_file(${KIV_PACKAGING}/python.prerm ${KIV_INSTALLED}/python/prerm COPYONLY)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= 3.9), libkivevent0 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Python module to post events for kivApp
Over the C library libkivevent.")

# Files that an administrator's changes are kept in.
file(WRITE ${KIV_INSTALLED}/conffiles "/etc/default/kivApp\n/etc/init.d/kivApp\n")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${KIV_INSTALLED}/conffiles ${KIV_INSTALLED}/postinst
    ${KIV_INSTALLED}/prerm ${KIV_INSTALLED}/postrm)

# Debian's own papers for a package.
string(TIMESTAMP KIV_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${KIV_INSTALLED}/changelog "kivapp (${PROJECT_VERSION}) stable; urgency=medium\n
  * Release ${PROJECT_VERSION}.\n
 -- ${CPACK_PACKAGE_CONTACT}  ${KIV_PACKAGE_DATE}\n")
add_custom_command(OUTPUT ${KIV_INSTALLED}/changelog.gz
  COMMAND gzip -9nc ${KIV_INSTALLED}/changelog > ${KIV_INSTALLED}/changelog.gz
  DEPENDS ${KIV_INSTALLED}/changelog VERBATIM)
add_custom_target(package_papers ALL DEPENDS ${KIV_INSTALLED}/changelog.gz)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kivapp
        RENAME copyright)
install(FILES ${KIV_INSTALLED}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kivapp)
foreach(component library development python)
  string(TOUPPER ${component} COMPONENT)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${folder} RENAME copyright
          COMPONENT ${component})
  install(FILES ${KIV_INSTALLED}/changelog.gz DESTINATION ${folder} COMPONENT ${component})
endforeach()

include(CPack)
