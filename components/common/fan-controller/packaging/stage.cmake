# What the package has differently from an installation: run by cpack on the files it has gathered.
set(root ${CPACK_TEMPORARY_DIRECTORY})

# Where /sbin and /lib are links to their counterparts in /usr, as on Debian, a package must not own
# files through the links. /sbin/fan_controller leads to the program all the same.
foreach(folder sbin lib)
  file(RENAME ${root}/${folder} ${root}/usr/${folder})
endforeach()

file(GLOB documents ${root}/usr/share/man/man*/* ${root}/usr/share/doc/*/changelog.Debian)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
set(overrides ${root}/usr/share/lintian/overrides)
configure_file(${CMAKE_CURRENT_LIST_DIR}/lintian-overrides ${overrides}/${CPACK_PACKAGE_NAME} COPYONLY)
