# The programs that people install. In the build directory each has the name of its target too.
set(packaging ${PROJECT_SOURCE_DIR}/programs/packaging)
find_program(ORV_HELP2MAN help2man DOC "Writes the manual pages of the programs, if there is one")

# Makes the program orv-NAME, with "-" for "_", and installs it with its completion and its manual
# page as a part of COMPONENT:
#
#   add_orv_program(NAME COMPONENT NAME ABOUT TEXT [SETTINGS FILE] SOURCES FILE...)
#
# The page is what its --help says, headed by ABOUT. A program that has a service names the settings
# of that.
function(add_orv_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COMPONENT;ABOUT;SETTINGS" "SOURCES")
  string(REPLACE _ - program orv-${name})
  string(REPLACE - _ function ${program})
  add_executable(${name} ${arg_SOURCES}
    BrokerOptions.cpp CommandLine.cpp ProblemLog.cpp Service.cpp)
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME ${program}
    INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR})
  target_compile_definitions(${name} PRIVATE ORV_VERSION="${PROJECT_VERSION}")
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE
    orv::reporting orv::device_tree orv_warnings CLI11::CLI11)
  add_custom_command(TARGET ${name} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E create_symlink ${program} ${name}
    BYPRODUCTS ${name})
  if(NOT ORV_INSTALL)
    return()
  endif()

  install(TARGETS ${name} RUNTIME COMPONENT ${arg_COMPONENT})
  configure_file(${packaging}/completion.in ${program}.completion @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${program}.completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    COMPONENT ${arg_COMPONENT} RENAME ${program})
  if(ORV_HELP2MAN)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1)
    set(include)
    if(arg_SETTINGS)
      set(settings ${arg_SETTINGS})
      configure_file(${packaging}/manual.in ${program}.files @ONLY)
      set(include --include=${CMAKE_CURRENT_BINARY_DIR}/${program}.files)
    endif()
    add_custom_command(OUTPUT ${page}.gz
      COMMAND ${ORV_HELP2MAN} --no-info --name ${arg_ABOUT} ${include} --output ${page}
        $<TARGET_FILE:${name}>
      COMMAND gzip --force --best --no-name ${page}
      DEPENDS ${name} ${packaging}/manual.in
      VERBATIM)
    add_custom_target(${name}_manual ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${arg_COMPONENT})
  endif()
endfunction()

# Makes the service PROGRAM.service of a program's package, the COMPONENT, with what is wanted
# beside all that services have in common:
#
#   add_orv_service(PROGRAM COMPONENT NAME ABOUT TEXT SETTINGS FILE ONLY_HERE LINE...)
#
# FILE.conf, in the directory COMPONENT, has its settings. Only packages have services, as a prefix
# of one's own is nowhere where a service manager looks.
function(add_orv_service program)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "COMPONENT;ABOUT;SETTINGS" "ONLY_HERE")
  set(about ${arg_ABOUT})
  set(settings ${arg_SETTINGS})
  list(JOIN arg_ONLY_HERE "\n" only_here)
  set(unit ${program}.service)
  configure_file(${packaging}/service.in ${unit} @ONLY)
  set(made ${CMAKE_CURRENT_BINARY_DIR}/packages/${program})
  file(WRITE ${made}/50-${program}.preset "disable ${unit}\n")
  foreach(script postinst prerm postrm)
    configure_file(${packaging}/${script}.in ${made}/${script} @ONLY
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
        GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endforeach()
  file(WRITE ${made}/conffiles "/etc/orv/${settings}.conf\n")

  set(in_package COMPONENT ${arg_COMPONENT} EXCLUDE_FROM_ALL)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${unit}
    DESTINATION /lib/systemd/system ${in_package})
  install(FILES ${made}/50-${program}.preset
    DESTINATION /lib/systemd/system-preset ${in_package})
  install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/${arg_COMPONENT}/${settings}.conf
    DESTINATION /etc/orv ${in_package})
  install(DIRECTORY DESTINATION /etc/orv/${settings}.credentials
    DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE ${in_package})
endfunction()
