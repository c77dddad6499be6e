# What `cmake --install` puts where: the daemon, its tools, start files and manual pages.
# Debian's place for the libraries of one kind of processor; built for another one it is not found.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)

set(KIV_STATE_DIR /var/lib/kivApp CACHE PATH
    "Where an installed daemon keeps its files, unless its environment file says otherwise")
if(KIV_STATE_DIR MATCHES "^/var/lib/(.+)$")
  set(KIV_STATE_DIRECTORY StateDirectory=${CMAKE_MATCH_1})
else()
  set(KIV_STATE_DIRECTORY "# systemd makes folders below /var/lib only; this one is there already.")
endif()
# The settings that the start files name; where the last rules below put them.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  set(KIV_SETTINGS /etc/default/kivApp)
else()
  set(KIV_SETTINGS ${CMAKE_INSTALL_PREFIX}/etc/default/kivApp)
endif()
# kivstat looks for a set's files where an installed daemon has them.
target_compile_definitions(kivstat PRIVATE KIV_STATE_DIR="${KIV_STATE_DIR}"
                           KIV_SETTINGS="${KIV_SETTINGS}")
set(KIV_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(KIV_INSTALLED ${PROJECT_BINARY_DIR}/installed)  # with this build's paths filled in

foreach(file kivApp.service kivApp.init kivApp.default postinst prerm postrm)
  configure_file(${KIV_PACKAGING}/${file}.in ${KIV_INSTALLED}/${file} @ONLY)
endforeach()

foreach(page kivApp.8 kivsend.1 kivstat.1)
  add_custom_command(OUTPUT ${KIV_INSTALLED}/${page}.gz
    COMMAND gzip -9nc ${KIV_PACKAGING}/${page} > ${KIV_INSTALLED}/${page}.gz
    DEPENDS ${KIV_PACKAGING}/${page} VERBATIM)
  list(APPEND KIV_PAGES ${KIV_INSTALLED}/${page}.gz)
endforeach()
add_custom_target(manual_pages ALL DEPENDS ${KIV_PAGES})

# Where the AWS SDK's shared libraries are in no place of the system's, the daemon has to know it.
if(AWSSDK_FOUND)
  set_target_properties(kivApp kivstat PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
endif()
install(TARGETS kivApp RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kivsend kivstat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${KIV_INSTALLED}/kivApp.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${KIV_INSTALLED}/kivsend.1.gz ${KIV_INSTALLED}/kivstat.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${KIV_INSTALLED}/kivApp.service DESTINATION lib/systemd/system)

# Settings of what is installed in /usr are in /etc, else in the prefix's own etc.
install(CODE [[
  if(CMAKE_INSTALL_PREFIX MATCHES "/usr/?$")
    set(KIV_ETC ../etc)
  else()
    set(KIV_ETC etc)
  endif()]])
install(FILES ${KIV_INSTALLED}/kivApp.default DESTINATION "\${KIV_ETC}/default" RENAME kivApp)
install(PROGRAMS ${KIV_INSTALLED}/kivApp.init DESTINATION "\${KIV_ETC}/init.d" RENAME kivApp)

# The client library: what programs need to run, what they are compiled with, the Python module.
file(RELATIVE_PATH KIVEVENT_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" KIVEVENT_PREFIX "${KIVEVENT_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/clients/c/kivevent.pc.in ${KIV_INSTALLED}/kivevent.pc @ONLY)
install(TARGETS kivevent
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS kivevent_static
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/clients/c/kivevent.h ${PROJECT_SOURCE_DIR}/clients/c/kivevent.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES ${KIV_INSTALLED}/kivevent.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/clients/python/kivevent.py
        DESTINATION lib/python3/dist-packages COMPONENT python)
