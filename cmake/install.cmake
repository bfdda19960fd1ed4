# What `cmake --install` puts where, as three components: the module, the host program, and what
# another host is developed with.
include(CMakePackageConfigHelpers)
# Neither `cmake --install` nor cpack builds first: they would build the tests, too.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/cpd-udisk)
# The host program looks for the module here, beside its own directory.
set(module_directory lib/cpd)

install(TARGETS udisk-redir LIBRARY DESTINATION ${module_directory} COMPONENT module)

install(DIRECTORY framework/include/ packet/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS cpd_framework cpd_packet EXPORT cpd-udisk-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
# The project's targets are cpd_NAME, the package's cpd::NAME.
install(EXPORT cpd-udisk-targets NAMESPACE cpd::
  DESTINATION ${package_directory} COMPONENT development)
set(module_path ${module_directory}/udisk-redir.so)
configure_package_config_file(cmake/cpd-udisk-config.cmake.in cpd-udisk-config.cmake
  INSTALL_DESTINATION ${package_directory} PATH_VARS module_path)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/cpd-udisk-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/cpd-udisk-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/cpd-udisk-config-version.cmake
  DESTINATION ${package_directory} COMPONENT development)

configure_file(cmake/cpd-udisk.pc.in cpd-udisk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cpd-udisk.pc
  DESTINATION share/pkgconfig COMPONENT development)
set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc)
install(FILES docs/protocol.md DESTINATION ${documents}/libcpd-udisk-dev COMPONENT development)
install(DIRECTORY examples/minimal-host
  DESTINATION ${documents}/libcpd-udisk-dev/examples COMPONENT development)

install(TARGETS cpd-host RUNTIME DESTINATION bin COMPONENT host)
install(FILES docs/operating.md DESTINATION ${documents}/cpd-host COMPONENT host)
install(FILES docs/cpd-host.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
install(FILES contrib/cpd-host.bash
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME cpd-host
  COMPONENT host)
# Not in Wireshark's own folder: a script that is named on its command line cannot be there, too.
install(FILES tools/cpd.lua DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/cpd-host COMPONENT host)

install(FILES contrib/cpd-host-usb@.service DESTINATION lib/systemd/system COMPONENT host)
# The unit names the program by its whole path, which is not known earlier.
install(CODE [[
  set(unit "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/systemd/system/cpd-host-usb@.service")
  file(READ "${unit}" text)
  string(REPLACE /usr/local/bin/ "${CMAKE_INSTALL_PREFIX}/bin/" text "${text}")
  file(WRITE "${unit}" "${text}")]]
  COMPONENT host)
