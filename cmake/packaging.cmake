# `cpack` makes the Debian package of this build; of the kind of processor that it was built for.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kivapp)
set(CPACK_PACKAGE_VENDOR kivApp)
set(CPACK_PACKAGE_CONTACT "kivApp maintainers <kivapp@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "telemetry daemon for a television set")
set(CPACK_PACKAGE_DESCRIPTION
"Other processes post small JSON events on a POSIX message queue. The daemon
keeps those that the server's configuration selects and the user's consent
allows, stores them through power cuts, gives each a trustworthy time, and
uploads them in packets to Amazon Kinesis Firehose, and announced files to
Amazon S3. kivsend posts events from the command line.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates, net-tools")
# The network's state is asked of ping.
set(KIV_DEBIAN_PROGRAMS "iputils-ping | inetutils-ping")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps asks the host's own packages; these are what it finds for the native build, and
  # the packages' test compares them with the libraries that the programs name.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libcurl4 (>= 7.16.2), libgcc-s1 (>= 3.5), \
libjansson4 (>= 2.14), libsqlite3-0 (>= 3.8.7), libssl3 (>= 3.0.0), libstdc++6 (>= 12), \
libuuid1 (>= 2.16), ${KIV_DEBIAN_PROGRAMS}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS ${KIV_DEBIAN_PROGRAMS})
endif()

# Files that an administrator's changes are kept in.
file(WRITE ${KIV_INSTALLED}/conffiles "/etc/default/kivApp\n/etc/init.d/kivApp\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${KIV_INSTALLED}/conffiles ${KIV_INSTALLED}/postinst
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

include(CPack)
