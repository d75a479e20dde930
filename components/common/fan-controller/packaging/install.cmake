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
include(${packaging}/package.cmake)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME ${package})

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

# dpkg-shlibdeps has to find libcorvane as well, but that one belongs to no package here, the stand-in
# least of all: its package is named by hand.
set(CPACK_DEBIAN_PACKAGE_DEPENDS ${CORVANE_PACKAGE})
if(CORVANE_LIBRARY)
  set(library ${CORVANE_LIBRARY})
else()
  set(library ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/libcorvane.so)
endif()
cmake_path(GET library PARENT_PATH folder)
list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${folder})
include(CPack)
