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

# What an optional library adds: its targets, and a pkg-config file with the packages that it needs.
function(install_development_files name)
  # A shared library brings what it needs by itself.
  set(pc_requires_private)
  if(NOT BUILD_SHARED_LIBS)
    list(JOIN ARGN " " pc_requires_private)
  endif()
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/orv-${name}.pc.in orv-${name}.pc @ONLY)

  install(EXPORT ${name}
    FILE ${PROJECT_NAME}-${name}-targets.cmake
    NAMESPACE orv::
    DESTINATION ${config_install_dir}
    COMPONENT ${name}_development)
  install(FILES ${PROJECT_BINARY_DIR}/orv-${name}.pc
    DESTINATION ${pc_install_dir}
    COMPONENT ${name}_development)
endfunction()
if(ORV_BUILD_REPORTING)
  install_development_files(reporting libmosquitto openssl)
endif()
if(ORV_BUILD_HISTORY)
  install_development_files(history sqlite3 zlib)
endif()
