# Completes the packages of debug symbols that cpack has just made. Their list of checksums names
# the files by their paths on the building machine, where dpkg wants paths from the root, and they
# have no documentation: it is that of the package they belong to.
foreach(package ${CPACK_PACKAGE_FILES})
  if(NOT package MATCHES "/([^/_]+)-dbgsym_[^/]*\\.ddeb$")
    continue()
  endif()
  set(owner ${CMAKE_MATCH_1})
  set(tree ${package}.tree)
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/md5sums sums)
  string(REGEX REPLACE "  [^\n]*/(usr/lib/debug/)" "  \\1" sums "${sums}")
  file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
  file(GLOB_RECURSE symbols ${tree}/usr/lib/debug/*.debug)
  file(CHMOD ${symbols} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${owner} ${tree}/usr/share/doc/${owner}-dbgsym SYMBOLIC)
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build ${tree} ${package}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
