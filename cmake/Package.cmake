# `cpack -G DEB`: a runtime and a development package for each of the libraries, and one for each of
# the programs that people run, by the components that are installed.
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

# The two files that Debian asks for in every package; a plain install leaves them out.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in changelog @ONLY)
file(ARCHIVE_CREATE OUTPUT ${PROJECT_BINARY_DIR}/changelog.gz
  PATHS ${PROJECT_BINARY_DIR}/changelog
  FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)

set(CPACK_PACKAGE_CONTACT "${maintainer_name} <${maintainer_email}>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_STRIP_FILES ON)
# Services are not below the prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Each package has a summary of its own, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps finds the libraries that are built here, but not the package they will be in.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${PROJECT_BINARY_DIR}/device_tree ${PROJECT_BINARY_DIR}/proto/monitoring
  ${PROJECT_BINARY_DIR}/reporting ${PROJECT_BINARY_DIR}/history)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")

macro(add_package component name section depends description)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER CPACK_DEBIAN_${component} prefix)
  set(${prefix}_PACKAGE_NAME ${name})
  set(${prefix}_PACKAGE_SECTION ${section})
  set(${prefix}_PACKAGE_DEPENDS "${depends}")
  set(${prefix}_DESCRIPTION "${description}")
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

# Describes the two packages of a library, which are called ${LIBRARY_runtime} and
# ${LIBRARY_development} from then on. What the runtime package needs beside the libraries of other
# projects, and the development package beside the runtime package, must be said.
macro(add_packages library runtime_depends development_depends about)
  get_target_property(soversion orv_${library} SOVERSION)
  string(REPLACE _ - name liborv-${library})
  set(${library}_runtime ${name}${soversion})
  set(${library}_development ${name}-dev)
  add_package(${library}_runtime ${${library}_runtime} libs "${runtime_depends}"
    "${about}\n\nThis package contains what programs need to run.")
  set(${prefix}_PACKAGE_SHLIBDEPS ON)
  set(${prefix}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
  add_package(${library}_development ${${library}_development} libdevel
    "${${library}_runtime} (= ${PROJECT_VERSION}), ${development_depends}"
    "${about}\n\nThis package contains what programs need to be built.")
endmacro()

add_packages(device_tree "" "libboost-dev, libprotobuf-dev" "${PROJECT_DESCRIPTION}
For processes that watch devices and report on them: a process keeps an
installation as a live tree of devices, and as a snapshot the tree that it
reported last, and computes the one event message that leads from the snapshot
to the live tree.")
if(ORV_BUILD_REPORTING)
  add_packages(reporting "${device_tree_runtime} (>= ${PROJECT_VERSION})"
    "${device_tree_development} (= ${PROJECT_VERSION})"
    "Reports device trees over MQTT and follows those of others
For processes that keep their installations as device trees: a reporter
publishes what changes in them to a broker, and a collector keeps the trees of
all reporters, whatever is lost, doubled or reordered on the way.")
endif()
if(ORV_BUILD_HISTORY)
  add_packages(history "${reporting_runtime} (>= ${PROJECT_VERSION})"
    "${reporting_development} (= ${PROJECT_VERSION})"
    "Records what changes in device trees, and says what was when
For collectors of device trees: a recorder keeps every event in one file, and
readers ask the file for the tree of a root at a time, for what changed in
between, and for the course of a value.")
endif()

# Describes the package of a program, with the service of its name and the libraries that it needs.
macro(add_program_package component name libraries about)
  set(needed ${libraries})
  list(TRANSFORM needed APPEND " (= ${PROJECT_VERSION})")
  list(JOIN needed ", " depends)
  add_package(${component} ${name} net "${depends}" "${about}")
  set(${prefix}_PACKAGE_SHLIBDEPS ON)
  set(${prefix}_PACKAGE_CONTROL_EXTRA)
  foreach(file conffiles postinst prerm postrm)
    list(APPEND ${prefix}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/programs/packages/${name}/${file})
  endforeach()
endmacro()
if(ORV_BUILD_PROGRAMS)
  add_program_package(host_monitor orv-host-monitor "${device_tree_runtime};${reporting_runtime}"
    "Watches this machine and reports it to a fleet
Reads the machine from /proc and /sys: processors, memory, disks, network
interfaces, filesystems and sensors, and reports over MQTT what changes.

The service starts when it has been told its broker in
/etc/orv/host-monitor.conf and enabled.")
  add_program_package(collector orv-collector
    "${device_tree_runtime};${reporting_runtime};${history_runtime}"
    "Follows the machines of a fleet and shows them
Keeps the device trees of all machines that report over MQTT, shows them on a
page, records what changes, and hands their values to Prometheus.

The service starts when it has been told its broker in /etc/orv/collector.conf
and enabled.")
  set(${prefix}_PACKAGE_SUGGESTS "mosquitto, prometheus")
endif()

include(CPack)
