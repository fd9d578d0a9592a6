# What `cmake --install` puts into a prefix, in three components:
#   runtime      the libraries that a device's application is linked to
#   development  what such an application is built with: headers, CMake package, pkg-config file, documents, examples
#   tools        upgradectl and the device twin
# The result may be moved: nothing in it names the prefix.

include(CMakePackageConfigHelpers)

set(kavro_libraries upgrade kavro_agent kavro_package common_yr vel_node flash_drivers)
set(kavro_share ${CMAKE_INSTALL_DATADIR}/kavro-upgrade)
set(kavro_programs ${CMAKE_INSTALL_LIBEXECDIR}/kavro-upgrade)
set(kavro_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/kavro-upgrade)
set(kavro_generated ${PROJECT_BINARY_DIR}/install)

# kavro_path_between(FROM TO RESULT): of two directories below the prefix, the way from one to the other.
function(kavro_path_between from to result)
  foreach(directory IN ITEMS from to)
    cmake_path(ABSOLUTE_PATH ${directory} BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} NORMALIZE)
  endforeach()
  cmake_path(RELATIVE_PATH to BASE_DIRECTORY ${from} OUTPUT_VARIABLE way)
  set(${result} ${way} PARENT_SCOPE)
endfunction()

# kavro_finds_libraries(TARGET DIRECTORY): a program or library installed into DIRECTORY looks for our libraries where
# they are installed, unless the loader looks there anyway.
function(kavro_finds_libraries target directory)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    kavro_path_between(${directory} ${CMAKE_INSTALL_LIBDIR} way)
    string(REGEX REPLACE "/[.]?$" "" path "$ORIGIN/${way}")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${path}")
  endif()
endfunction()

# --- libraries, headers and what finds them ----------------------------------------------------------------------------

foreach(library IN LISTS kavro_libraries)
  kavro_finds_libraries(${library} ${CMAKE_INSTALL_LIBDIR})
endforeach()
install(TARGETS kavro_common ${kavro_libraries} EXPORT kavro-upgrade
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavro-upgrade)

install(DIRECTORY ${KAVRO_ROOT}/agent ${KAVRO_ROOT}/common ${KAVRO_ROOT}/package ${KAVRO_ROOT}/upgrade
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavro-upgrade COMPONENT development
  FILES_MATCHING PATTERN "*.h" PATTERN "internal*" EXCLUDE)

install(EXPORT kavro-upgrade NAMESPACE kavro-upgrade:: FILE kavro-upgrade-targets.cmake
  DESTINATION ${kavro_cmake} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kavro-upgrade-config.cmake.in
  ${kavro_generated}/kavro-upgrade-config.cmake
  INSTALL_DESTINATION ${kavro_cmake} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${kavro_generated}/kavro-upgrade-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${kavro_generated}/kavro-upgrade-config.cmake ${kavro_generated}/kavro-upgrade-config-version.cmake
  DESTINATION ${kavro_cmake} COMPONENT development)

kavro_path_between(${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_LIBDIR} kavro_way_to_libraries)
kavro_path_between(${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_INCLUDEDIR} kavro_way_to_headers)
# kavro_pkg_config(NAME DESCRIPTION LIBS): one for each library that a program may want alone.
function(kavro_pkg_config name description libs)
  configure_file(${KAVRO_ROOT}/cmake/kavro.pc.in ${kavro_generated}/${name}.pc @ONLY)
  install(FILES ${kavro_generated}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
kavro_pkg_config(kavro-upgrade "${PROJECT_DESCRIPTION}" "-lupgrade -lflash_drivers -lvel_node -lcommon_yr")
kavro_pkg_config(kavro-agent "Operating an embedded camera device: upgrade, way back, state" "-lkavro_agent -lkavro_package -lupgrade -lflash_drivers -lvel_node -lcommon_yr")
kavro_pkg_config(kavro-package "Upgrade packages of an embedded camera device: check, read, make" "-lkavro_package")

install(FILES ${KAVRO_ROOT}/README.md ${KAVRO_ROOT}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY ${KAVRO_ROOT}/docs ${KAVRO_ROOT}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png" PATTERN "*.h" PATTERN "*.cpp")

# --- tools ------------------------------------------------------------------------------------------------------------

if(TARGET upgradectl)
  kavro_finds_libraries(upgradectl ${CMAKE_INSTALL_BINDIR})
  install(TARGETS upgradectl RUNTIME COMPONENT tools)
endif()

if(TARGET manual)
  install(DIRECTORY ${kavro_generated}/manual/man1 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
  install(FILES ${kavro_generated}/manual/upgradectl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endif()

if(TARGET mcu_emulator)
  kavro_finds_libraries(mcu_emulator ${kavro_programs})
  install(TARGETS mcu_emulator RUNTIME DESTINATION ${kavro_programs} COMPONENT tools)

  kavro_path_between(${kavro_share}/twin ${kavro_programs} kavro_way_to_programs)
  kavro_path_between(${kavro_share}/twin . kavro_way_to_prefix)
  configure_file(${KAVRO_ROOT}/twin/installed.sh.in ${kavro_generated}/installed.sh @ONLY)
  install(PROGRAMS ${KAVRO_ROOT}/twin/twin DESTINATION ${kavro_share}/twin COMPONENT tools)
  install(FILES
    ${kavro_generated}/installed.sh
    ${KAVRO_ROOT}/twin/boot.sh
    ${KAVRO_ROOT}/twin/device.sh
    ${KAVRO_ROOT}/twin/disks.sh
    ${KAVRO_ROOT}/twin/power.sh
    DESTINATION ${kavro_share}/twin COMPONENT tools)
  install(PROGRAMS ${KAVRO_ROOT}/twin/demo/make_release.sh DESTINATION ${kavro_share}/twin/demo COMPONENT tools)
endif()

if(PROJECT_IS_TOP_LEVEL)
  include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
endif()
