include(GenerateExportHeader)

# Makes the library orv_NAME, orv::NAME to those who link it, in the directory of its sources:
#
#   add_orv_library(NAME PACKAGE NAME SOVERSION NUMBER [EXPORT_ALL] SOURCES FILE... HEADERS FILE...)
#
# It exports what is marked with the macros of Export.h, a header that is made here and installed with
# the HEADERS. EXPORT_ALL is for generated classes, which are not marked. PACKAGE names the export set
# and begins the names of the components: PACKAGE_runtime and PACKAGE_development.
function(add_orv_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg EXPORT_ALL "PACKAGE;SOVERSION" "SOURCES;HEADERS")
  file(RELATIVE_PATH directory ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  set(target orv_${name})
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set(export_header ${PROJECT_BINARY_DIR}/generated/${directory}/Export.h)

  add_library(${target} ${arg_SOURCES})
  add_library(orv::${name} ALIAS ${target})
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name}
    POSITION_INDEPENDENT_CODE ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${arg_SOVERSION}
    INSTALL_RPATH $ORIGIN)
  if(NOT arg_EXPORT_ALL)
    set_target_properties(${target} PROPERTIES
      CXX_VISIBILITY_PRESET hidden
      VISIBILITY_INLINES_HIDDEN ON
      LINK_DEPENDS ${exports})
    target_link_options(${target} PRIVATE LINKER:--version-script=${exports})
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:orv_warnings>)
    generate_export_header(${target} EXPORT_FILE_NAME ${export_header})
    list(APPEND arg_HEADERS ${export_header})
  endif()

  if(ORV_INSTALL)
    install(TARGETS ${target} EXPORT ${arg_PACKAGE}
      ARCHIVE COMPONENT ${arg_PACKAGE}_development
      LIBRARY COMPONENT ${arg_PACKAGE}_runtime NAMELINK_COMPONENT ${arg_PACKAGE}_development)
    install(FILES ${arg_HEADERS}
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv/${directory}
      COMPONENT ${arg_PACKAGE}_development)
  endif()
endfunction()
