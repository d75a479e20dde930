# Run by cpack on the finished package, for what cpack does not do well. It has counted the sizes of
# folders into Installed-Size: those are the file system's, so two machines would build different
# packages. Debian's own tool counts each folder as one KiB and each file in whole KiB.
set(tree ${CPACK_TOPLEVEL_DIRECTORY}/repack)
file(REMOVE_RECURSE ${tree})
execute_process(COMMAND dpkg-deb -R ${CPACK_PACKAGE_FILES} ${tree} COMMAND_ERROR_IS_FATAL ANY)

file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE ${tree} ${tree}/*)
list(FILTER entries EXCLUDE REGEX "^DEBIAN(/|$)")
set(kilobytes 0)
foreach(entry IN LISTS entries)
  set(size 1)
  if(NOT IS_DIRECTORY ${tree}/${entry})
    file(SIZE ${tree}/${entry} size)
  endif()
  math(EXPR kilobytes "${kilobytes} + (${size} + 1023) / 1024")
endforeach()
file(READ ${tree}/DEBIAN/control control)
string(REGEX REPLACE "Installed-Size: [0-9]+" "Installed-Size: ${kilobytes}" control "${control}")
# What a cross compiler calls the package of its own libgcc exists on no appliance.
string(REGEX REPLACE "(libgcc-s1)-[a-z0-9]+-cross" "\\1" control "${control}")
file(WRITE ${tree}/DEBIAN/control "${control}")

execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${CPACK_PACKAGE_FILES}
                COMMAND_ERROR_IS_FATAL ANY)
