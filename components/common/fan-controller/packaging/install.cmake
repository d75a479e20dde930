# Installation and the Debian package.
#
#   cmake --install build/release             into this system
#   DESTDIR=... cmake --install build/release into an image of the appliance
#   cpack --config build/release/CPackConfig.cmake
#
# The prefix stands for the root of the system: the service and its unit know their absolute paths.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX / CACHE PATH "Root of the system to install into" FORCE)
endif()
set(CORVANE_PACKAGE libcorvane CACHE STRING
    "Package that brings libcorvane, for the dependency; empty: the appliance has it unpackaged")

set(package fan-controller)
set(packaging ${CMAKE_CURRENT_LIST_DIR})
set(documents usr/share/doc/${package})
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

if(NOT CORVANE_LIBRARY)
  install(CODE "message(WARNING \"linked against the stand-in for libcorvane, which is not \"
    \"installed: set CORVANE_LIBRARY and CORVANE_INCLUDE_DIR for the appliance\")")
endif()
install(TARGETS fan_controller RUNTIME DESTINATION sbin)
# An installation over an older one keeps its settings.
foreach(settings fan_controller.conf fan_cmd_tab.conf)
  set(original ${CMAKE_CURRENT_SOURCE_DIR}/config/${settings})
  install(CODE "
    set(folder \"\${CMAKE_INSTALL_PREFIX}/etc/fan_controller\")
    if(NOT EXISTS \"\$ENV{DESTDIR}\${folder}/${settings}\")
      file(INSTALL DESTINATION \"\${folder}\" FILES \"${original}\")
    endif()")
endforeach()
install(FILES ${packaging}/fan_controller.service DESTINATION lib/systemd/system)
install(FILES ${packaging}/fan_controller.tmpfiles DESTINATION lib/tmpfiles.d
        RENAME fan_controller.conf)
install(FILES doc/fan_controller.8 DESTINATION usr/share/man/man8)
install(FILES doc/fan_controller.conf.5 doc/fan_cmd_tab.conf.5 DESTINATION usr/share/man/man5)
install(DIRECTORY config/examples DESTINATION ${documents})
install(FILES ${packaging}/copyright DESTINATION ${documents})
install(FILES ${packaging}/changelog DESTINATION ${documents} RENAME changelog.Debian)
# An installation enables nothing by itself: a second one would undo what the administrator wants.
install(CODE [[
  if("$ENV{DESTDIR}" STREQUAL "")
    message(STATUS "To start it now and at boot: systemctl daemon-reload && "
      "systemctl enable --now fan_controller")
  else()
    message(STATUS "To start it at boot: systemctl --root=\"$ENV{DESTDIR}\" enable fan_controller")
  endif()]])

# The changelog knows how often this version has been packaged.
file(STRINGS ${packaging}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^${package} \\(${PROJECT_VERSION}-([0-9]+)\\)")
  message(FATAL_ERROR "packaging/changelog does not begin with version ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${packaging}/changelog)

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_VENDOR Tarvo)
set(CPACK_PACKAGE_CONTACT "Tarvo Fan Control <fan-control@tarvo.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/stage.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${packaging}/repack.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "fan control of a network-attached storage appliance")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Measures the temperature of the board or of the hottest disk, sets the fan
through sysfs by a table of temperatures and fan commands, watches the fan's
alarm, restarts a blocked fan, and reports fan failures and high temperatures.

As installed no fan is touched: the fan driver has to be named in
/etc/fan_controller/fan_controller.conf first.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${packaging}/conffiles ${packaging}/preinst ${packaging}/postinst ${packaging}/prerm
    ${packaging}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# dpkg-shlibdeps finds the C library's package and version; that of a cross compiler it has to be
# led to. It has to find libcorvane as well, but that one belongs to no package here, the stand-in
# least of all: its package is named by hand.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS ${CORVANE_PACKAGE})
if(CORVANE_LIBRARY)
  set(libraries ${CORVANE_LIBRARY})
else()
  set(libraries ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libcorvane.so)
endif()
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libc.so.6
                  OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND libraries ${libc})
endif()
foreach(library IN LISTS libraries)
  cmake_path(GET library PARENT_PATH folder)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${folder})
endforeach()
include(CPack)
