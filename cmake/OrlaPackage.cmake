# What is installed where, and the Debian packages: the daemon and, in an emulated build, the host
# tool and the simulated driver that both load. `make package` makes them, each with a package of
# debug symbols.
include(GNUInstallDirs)

set(ORLA_PACKAGE_DEPENDS "libc6, libgcc-s1, libprotobuf32, libstdc++6" CACHE STRING
    "What the package of a device build depends on: no package owns the device's libraries")

# A directory that ldconfig does not search: only our own programs load the library in it.
set(private_libraries lib/${CMAKE_LIBRARY_ARCHITECTURE}/orla)

# orla_install_gz(<source> <destination> <name> <component>): installs the source, compressed.
function(orla_install_gz source destination name component)
  set(compressed ${CMAKE_CURRENT_BINARY_DIR}/compressed/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/compressed/${component})
  execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/${source}
                  OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  install(FILES ${compressed} DESTINATION ${destination} COMPONENT ${component})
endfunction()

install(TARGETS orla RUNTIME DESTINATION sbin COMPONENT orla)
install(FILES deploy/orla.service DESTINATION lib/systemd/system COMPONENT orla)
orla_install_gz(docs/man/orla.8 ${CMAKE_INSTALL_MANDIR}/man8 orla.8 orla)
orla_install_gz(deploy/changelog ${CMAKE_INSTALL_DATADIR}/doc/orla changelog orla)

set(CPACK_COMPONENTS_ALL orla)
if(ORLA_PLATFORM STREQUAL "emulated")
  set_target_properties(orla orlactl PROPERTIES INSTALL_RPATH $ORIGIN/../${private_libraries})
  install(TARGETS orlactl RUNTIME DESTINATION bin COMPONENT orlactl)
  orla_install_gz(docs/man/orlactl.1 ${CMAKE_INSTALL_MANDIR}/man1 orlactl.1 orlactl)
  orla_install_gz(deploy/changelog ${CMAKE_INSTALL_DATADIR}/doc/orlactl changelog orlactl)
  install(FILES deploy/orlactl.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME orlactl COMPONENT orlactl)
  install(TARGETS orla_platform LIBRARY DESTINATION ${private_libraries} COMPONENT platform)
  orla_install_gz(deploy/changelog ${CMAKE_INSTALL_DATADIR}/doc/orla-platform changelog platform)
  list(APPEND CPACK_COMPONENTS_ALL orlactl platform)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "The orla developers <orla@example.org>")  # as in deploy/changelog
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)  # strips the programs, too
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/OrlaDebugPackages.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

set(CPACK_DEBIAN_ORLA_PACKAGE_NAME orla)
set(CPACK_COMPONENT_ORLA_DESCRIPTION "debug and profiling agent of an accelerator card
The daemon that runs on the card's control CPU: log levels, log and dump files,
profiling jobs for a host tool.")
set(CPACK_DEBIAN_ORLA_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/deploy/postinst;${PROJECT_SOURCE_DIR}/deploy/prerm;${PROJECT_SOURCE_DIR}/deploy/postrm")
set(CPACK_DEBIAN_ORLACTL_PACKAGE_NAME orlactl)
set(CPACK_DEBIAN_ORLACTL_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_ORLACTL_DESCRIPTION "log levels, files and profiles of accelerator cards
The host tool of the orla agent: it sets log levels, fetches log and dump
files, runs profiling jobs and reports on them.")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME orla-platform)
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION "simulated driver for the orla agent
The libraries that a card's driver brings, emulated over Unix sockets, for
machines that have no card.")
if(ORLA_PLATFORM STREQUAL "emulated")
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_ORLA_PACKAGE_DEPENDS "passwd, orla-platform (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_ORLACTL_PACKAGE_DEPENDS "orla-platform (= ${PROJECT_VERSION})")
else()
  set(CPACK_DEBIAN_ORLA_PACKAGE_DEPENDS "passwd, ${ORLA_PACKAGE_DEPENDS}")
endif()
include(CPack)
