# Installation of the companion, and its Debian package:
#
#   cpack --config build/release/CPackTools.cmake
set(package fan-controller-tools)
set(packaging ${CMAKE_CURRENT_LIST_DIR})
include(${packaging}/../../fan-controller/packaging/package.cmake)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME ${package})

install(TARGETS fanctl RUNTIME DESTINATION usr/sbin)
install(FILES ${packaging}/fanctl.conf
        DESTINATION usr/lib/systemd/system/fan_controller.service.d)
install(FILES ${packaging}/fanctl-guard.service
              ${packaging}/fanctl-guard.timer
              ${packaging}/fanctl-notify.path
              ${packaging}/fanctl-notify.service
              ${packaging}/fanctl-notify.timer
              ${packaging}/fanctl-standby.service
              ${packaging}/fanctl-standby.timer
              ${packaging}/fanctl-standby-end.service
        DESTINATION usr/lib/systemd/system)
install(DIRECTORY DESTINATION var/lib/fan_controller)
# Examples: executable, so that a plain copy of one into the empty folder switches it on.
install(PROGRAMS hooks/beeper hooks/mail hooks/webhook DESTINATION ${documents}/hooks)
install(DIRECTORY DESTINATION etc/fan_controller/hooks.d)
install(FILES doc/fanctl.8 DESTINATION usr/share/man/man8)
install(FILES doc/fanctl.bash DESTINATION usr/share/bash-completion/completions RENAME fanctl)
install(FILES ${packaging}/copyright DESTINATION ${documents})
install(FILES ${changelog} DESTINATION ${documents} RENAME changelog.Debian)

set(CPACK_OUTPUT_CONFIG_FILE ${CMAKE_BINARY_DIR}/CPackTools.cmake)
set(CPACK_DEBIAN_PACKAGE_ENHANCES fan-controller)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "prepare and watch a machine for the fan control service")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"fanctl lists the fans, sensors and disks of a machine, presents the driver of
a fan in the form that the service fan-controller knows, says what the service
will do with its configuration and what is wrong with it, and draws the fan
command over the temperature.

It tells somebody, by mail or by programs of the administrator's, when the fan
has failed, when it gets too hot and when the service has stopped.

It shows what holds now, for people and for a collector of metrics, gives the
fan the highest command when the service or a disk needs it, and lets the
service rest while all disks sleep.

With this package the fan driver that fanctl has noted is presented anew before
each start of the service, and given back when the service has ended.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/postinst ${packaging}/prerm
    ${packaging}/postrm)
include(CPack)
