# What is installed where, and the Debian packages: the daemon, the host tool and, in an emulated
# build, the simulated driver that both load. `cpack -G DEB` makes them.
include(GNUInstallDirs)

set_target_properties(orla PROPERTIES INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR}/orla)
install(TARGETS orla RUNTIME DESTINATION sbin COMPONENT orla)
install(FILES deploy/orla.service DESTINATION lib/systemd/system COMPONENT orla)
install(FILES docs/man/orla.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT orla)

set(CPACK_COMPONENTS_ALL orla)
if(ORLA_PLATFORM STREQUAL "emulated")
  set_target_properties(orlactl PROPERTIES INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR}/orla)
  install(TARGETS orlactl RUNTIME DESTINATION bin COMPONENT orlactl)
  install(FILES docs/man/orlactl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT orlactl)
  install(FILES deploy/orlactl.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME orlactl COMPONENT orlactl)
  install(TARGETS orla_platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/orla COMPONENT platform)
  list(APPEND CPACK_COMPONENTS_ALL orlactl platform)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "the orla developers <orla@localhost>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_ORLA_PACKAGE_NAME orla)
set(CPACK_COMPONENT_ORLA_DESCRIPTION "debug and profiling agent of an accelerator card
 The daemon that runs on the card's control CPU: log levels, log and dump files,
 profiling jobs for a host tool.")
set(CPACK_DEBIAN_ORLA_PACKAGE_DEPENDS passwd)
set(CPACK_DEBIAN_ORLA_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/deploy/postinst;${PROJECT_SOURCE_DIR}/deploy/prerm;${PROJECT_SOURCE_DIR}/deploy/postrm")
set(CPACK_DEBIAN_ORLACTL_PACKAGE_NAME orlactl)
set(CPACK_DEBIAN_ORLACTL_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_ORLACTL_DESCRIPTION "log levels, files and profiles of accelerator cards
 The host tool of the orla agent.")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME orla-platform)
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION "simulated driver for the orla agent
 The libraries that a card's driver brings, emulated over Unix sockets, for
 machines that have no card.")
if(ORLA_PLATFORM STREQUAL "emulated")
  set(CPACK_DEBIAN_ORLA_PACKAGE_DEPENDS "passwd, orla-platform (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_ORLACTL_PACKAGE_DEPENDS "orla-platform (= ${PROJECT_VERSION})")
endif()
include(CPack)
