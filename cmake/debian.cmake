# Debian packages of the install components, made by `./dev package`.

option(KAVRO_DEBIAN "Install as Debian packages have it: compressed pages, changelog and copyright of each" OFF)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Kavro upgrade developers <upgrade@kavro.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "firmware-upgrade manager of a camera device")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE kavro-upgrade)
set(libraries_of_build "")
foreach(library IN LISTS kavro_libraries)
  get_target_property(directory ${library} BINARY_DIR)
  list(APPEND libraries_of_build ${directory})
endforeach()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${libraries_of_build})

set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# A run starts openssl, and tar, which every Debian system has.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkavro-upgrade1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS openssl)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "\
Takes a signed package, writes it to the inactive one of the device's two
slots and to the companion microcontroller, activates it and can roll it back.
This package has the libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkavro-upgrade-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libkavro-upgrade1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "\
This package has headers, CMake package, pkg-config file, documents and
examples for applications that upgrade the device.")

# The programs of the twin's scripts: only who works with twins needs them.
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kavro-upgrade-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkavro-upgrade1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "binutils, bubblewrap, device-tree-compiler, e2fsprogs, jq, libubootenv-tool, mount, srecord")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "\
This package has upgradectl, which makes and checks upgrade packages and
installs them on a device, and the device twin, an emulated device to try that
on.")

include(CPack)

if(NOT KAVRO_DEBIAN)
  return()
endif()

set(kavro_debian ${KAVRO_ROOT}/packaging)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} name)
  set(directory ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  install(FILES ${kavro_debian}/changelog ${kavro_debian}/copyright DESTINATION ${directory} COMPONENT ${component})
  list(APPEND compressed_of_${component} ${directory}/changelog)
endforeach()
list(APPEND compressed_of_tools ${CMAKE_INSTALL_MANDIR}/man1/*.1)

# Without names and times, so that the same sources give the same package.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  install(CODE "
    set(prefix \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
    foreach(pattern IN ITEMS ${compressed_of_${component}})
      file(GLOB files \"\${prefix}/\${pattern}\")
      execute_process(COMMAND gzip -9nf \${files} COMMAND_ERROR_IS_FATAL ANY)
    endforeach()" COMPONENT ${component})
endforeach()
