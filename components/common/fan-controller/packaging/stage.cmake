# What the package has differently from an installation: run by cpack on the files it has gathered.
set(root ${CPACK_TEMPORARY_DIRECTORY})

# Where /sbin and /lib are links to their counterparts in /usr, as on Debian, a package must not own
# files through the links. /sbin/fan_controller leads to the program all the same.
foreach(folder sbin lib)
  if(EXISTS ${root}/${folder})
    file(RENAME ${root}/${folder} ${root}/usr/${folder})
  endif()
endforeach()

file(GLOB documents ${root}/usr/share/man/man*/* ${root}/usr/share/doc/*/changelog.Debian)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
set(overrides ${root}/usr/share/lintian/overrides)
file(COPY ${CPACK_PACKAGING_FOLDER}/lintian-overrides DESTINATION ${overrides}
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(RENAME ${overrides}/lintian-overrides ${overrides}/${CPACK_PACKAGE_NAME})

# The same bytes at any time: everything in the package is as old as the newest entry of its
# changelog. What is added later takes its time from the environment.
if("$ENV{SOURCE_DATE_EPOCH}" STREQUAL "")
  file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
  string(REGEX REPLACE "^.*>  " "" date "${signature}")
  execute_process(COMMAND date --date=${date} +%s OUTPUT_VARIABLE seconds
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{SOURCE_DATE_EPOCH} ${seconds})
endif()
execute_process(COMMAND find ${root} -exec touch -h --date=@$ENV{SOURCE_DATE_EPOCH} {} +
                COMMAND_ERROR_IS_FATAL ANY)
