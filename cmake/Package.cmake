# `cpack -G DEB`: a runtime and a development package for each of the libraries, by the components
# that are installed.
#
# The maintainer comes from DEBFULLNAME and DEBEMAIL, as with Debian's own tools, and the date of
# the change log from SOURCE_DATE_EPOCH.
set(maintainer_name "orv-device-tree maintainers")
set(maintainer_email maintainers@orv-device-tree.example.org)
if(DEFINED ENV{DEBFULLNAME})
  set(maintainer_name $ENV{DEBFULLNAME})
endif()
if(DEFINED ENV{DEBEMAIL})
  set(maintainer_email $ENV{DEBEMAIL})
endif()

set(runtime_package liborv-device-tree${PROJECT_VERSION_MAJOR})
set(development_package liborv-device-tree-dev)
set(reporting_runtime_package liborv-reporting${PROJECT_VERSION_MAJOR})
set(reporting_development_package liborv-reporting-dev)
set(components runtime development)
if(ORV_BUILD_REPORTING)
  list(APPEND components reporting_runtime reporting_development)
endif()

# The two files that Debian asks for in every package; a plain install leaves them out.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in changelog @ONLY)
file(ARCHIVE_CREATE OUTPUT ${PROJECT_BINARY_DIR}/changelog.gz
  PATHS ${PROJECT_BINARY_DIR}/changelog
  FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
foreach(component IN LISTS components)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${${component}_package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_PACKAGE_CONTACT "${maintainer_name} <${maintainer_email}>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Each package has a summary of its own, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(about
"${PROJECT_DESCRIPTION}
For processes that watch devices and report on them: a process keeps an
installation as a live tree of devices, and as a snapshot the tree that it
reported last, and computes the one event message that leads from the snapshot
to the live tree.")
set(reporting_about
"Reports device trees over MQTT and follows those of others
For processes that keep their installations as device trees: a reporter
publishes what changes in them to a broker, and a collector keeps the trees of
all reporters, whatever is lost, doubled or reordered on the way.")

set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${about}

This package contains the shared libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${runtime_package} (= ${PROJECT_VERSION}), libboost-dev, libprotobuf-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${about}

This package contains the headers, the message schemas, and what CMake and
pkg-config need to find the libraries.")

# dpkg-shlibdeps finds the libraries that are built here, but not the package they will be in.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/device_tree ${PROJECT_BINARY_DIR}/proto/monitoring)
set(CPACK_DEBIAN_REPORTING_RUNTIME_PACKAGE_NAME ${reporting_runtime_package})
set(CPACK_DEBIAN_REPORTING_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_REPORTING_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_REPORTING_RUNTIME_PACKAGE_DEPENDS "${runtime_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_REPORTING_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_REPORTING_RUNTIME_DESCRIPTION "${reporting_about}

This package contains the shared library.")

set(CPACK_DEBIAN_REPORTING_DEVELOPMENT_PACKAGE_NAME ${reporting_development_package})
set(CPACK_DEBIAN_REPORTING_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_REPORTING_DEVELOPMENT_PACKAGE_DEPENDS
  "${reporting_runtime_package} (= ${PROJECT_VERSION}), \
${development_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_REPORTING_DEVELOPMENT_DESCRIPTION "${reporting_about}

This package contains the headers, and what CMake and pkg-config need to find
the library.")

include(CPack)
