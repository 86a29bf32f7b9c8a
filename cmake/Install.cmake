# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where: the two shared libraries with their development links, the
# public headers and the host platform headers they include, pkg-config files, the CMake package
# libtavikm, and the tool with its man page and bash completion.
include(CMakePackageConfigHelpers)

set(TAVIKM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libtavikm)

install(TARGETS tavikm tavikm_host EXPORT libtavikm-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES include/tavikm.h include/tavikm_keymaster.h include/tavikm_kmstore.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
# Only the C headers a consumer of tavikm.h meets: the hardware-module types it embeds and the
# property calls that configure the emulated device. The C++ Keymaster stand-ins stay private.
install(FILES platform/host/include/hardware/hardware.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavikm/host/hardware COMPONENT development)
install(FILES platform/host/include/cutils/properties.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavikm/host/cutils COMPONENT development)

# The pkg-config files name the prefix the install goes to (`cmake --install --prefix` may
# differ from the configured one), so they are written at install time.
install(CODE "
  set(TAVIKM_PC_VERSION ${PROJECT_VERSION})
  set(TAVIKM_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
  set(TAVIKM_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
  set(TAVIKM_PC_TEMPLATES ${CMAKE_CURRENT_SOURCE_DIR}/cmake)
  set(TAVIKM_PC_OUT ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig)
  include(${CMAKE_CURRENT_SOURCE_DIR}/cmake/WritePkgConfig.cmake)" COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/libtavikm.pc
  ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/libtavikm-host.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(EXPORT libtavikm-targets NAMESPACE libtavikm:: DESTINATION ${TAVIKM_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(cmake/libtavikm-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/libtavikm-config.cmake INSTALL_DESTINATION ${TAVIKM_CMAKE_DIR})
# One SONAME per major version: a consumer asking for 1.x takes any 1.y with y >= x.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/libtavikm-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libtavikm-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/libtavikm-config-version.cmake
  DESTINATION ${TAVIKM_CMAKE_DIR} COMPONENT development)

install(TARGETS tavikm_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(FILES tools/tavikm.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tool)
install(FILES tools/tavikm.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME tavikm COMPONENT tool)
