# What `cmake --install` puts beside the libraries, their headers and schemas: the package config,
# the pkg-config files and the receiver in Python, an example. Everything follows the prefix that is
# chosen when installing, but for a CMAKE_INSTALL_LIBDIR that is absolute.
include(CMakePackageConfigHelpers)

set(proto_install_dir ${CMAKE_INSTALL_DATADIR}/${PROJECT_NAME}/proto)
set(config_install_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME})
set(pc_install_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/${PROJECT_NAME}-config.cmake.in ${PROJECT_NAME}-config.cmake
  INSTALL_DESTINATION ${config_install_dir}
  PATH_VARS proto_install_dir)
write_basic_package_version_file(${PROJECT_NAME}-config-version.cmake
  COMPATIBILITY SameMajorVersion)

if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH up /${pc_install_dir} /)
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${up}")
endif()
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR} orv)
cmake_path(APPEND pc_protodir "\${prefix}" ${proto_install_dir})
configure_file(${CMAKE_CURRENT_LIST_DIR}/${PROJECT_NAME}.pc.in ${PROJECT_NAME}.pc @ONLY)

install(FILES
  ${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config.cmake
  ${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config-version.cmake
  DESTINATION ${config_install_dir}
  COMPONENT device_tree_development)
install(EXPORT device_tree
  FILE ${PROJECT_NAME}-targets.cmake
  NAMESPACE orv::
  DESTINATION ${config_install_dir}
  COMPONENT device_tree_development)
install(FILES ${PROJECT_BINARY_DIR}/${PROJECT_NAME}.pc
  DESTINATION ${pc_install_dir}
  COMPONENT device_tree_development)
install(FILES ${PROJECT_SOURCE_DIR}/examples/receiver.py
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/liborv-device-tree-dev/examples
  COMPONENT device_tree_development)

if(ORV_BUILD_REPORTING)
  # A shared library brings what it needs by itself.
  set(pc_requires_private)
  if(NOT BUILD_SHARED_LIBS)
    set(pc_requires_private "libmosquitto openssl")
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/orv-reporting.pc.in orv-reporting.pc @ONLY)

  install(EXPORT reporting
    FILE ${PROJECT_NAME}-reporting-targets.cmake
    NAMESPACE orv::
    DESTINATION ${config_install_dir}
    COMPONENT reporting_development)
  install(FILES ${PROJECT_BINARY_DIR}/orv-reporting.pc
    DESTINATION ${pc_install_dir}
    COMPONENT reporting_development)
endif()

if(ORV_BUILD_HISTORY)
  # A shared library brings SQLite and zlib by itself.
  set(pc_history_private)
  if(NOT BUILD_SHARED_LIBS)
    set(pc_history_private "sqlite3 zlib")
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/orv-history.pc.in orv-history.pc @ONLY)

  install(EXPORT history
    FILE ${PROJECT_NAME}-history-targets.cmake
    NAMESPACE orv::
    DESTINATION ${config_install_dir}
    COMPONENT history_development)
  install(FILES ${PROJECT_BINARY_DIR}/orv-history.pc
    DESTINATION ${pc_install_dir}
    COMPONENT history_development)
endif()
