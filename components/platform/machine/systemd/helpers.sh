# shellcheck shell=bash
# Sourced by the checks inside of the machine: the fan chip, and questions that several of them ask.
# shellcheck disable=SC1091,SC2034 # some are for the checks
. ./guest.sh

within_pause=1 # waiting costs no time here, looking does
folder=/run/fan_controller/fan flags=/var/tmp told=/var/log/told
timers=(fanctl-guard.timer fanctl-notify.path fanctl-notify.timer fanctl-standby.timer)
units=(fan_controller.service "${timers[@]}" fanctl-{guard,notify,standby,standby-end}.service)

# --- The fan chip: the kernel's driver on a bus that keeps what is written to it ---

register() { i2cset -y -f 0 0x2e "$1" "$2"; }
attribute() { cat /sys/bus/i2c/devices/0-002e/hwmon/hwmon*/"$1"; }
pwm_is() { [[ $(attribute pwm1) == "$1" ]]; }
mode_is() { [[ $(attribute pwm1_enable) == "$1" ]]; }
heat() { register 0x25 $(($1 + 64)); } # degrees Celsius
block() { register 0x42 $((4 * $1)); } # the fan's alarm: 1, and 0 for a fan that turns

# An adt7475 whose fan turns at 1000 rpm, at 40 degrees, and that controls it by itself.
make_chip() {
  local registers='3d=75 3e=41 3f=69 40=01 25=68 26=68 27=68 28=18 29=15 30=80 5c=02' each
  modprobe i2c-stub && modprobe i2c-dev && modprobe adt7475
  for each in $registers; do register "0x${each%=*}" "0x${each#*=}" || return; done
  echo adt7475 0x2e >/sys/bus/i2c/devices/i2c-0/new_device
  until attribute pwm1_enable >/dev/null 2>&1; do sleep 0.1; done
}

# --- The service ---

service() { pidof /sbin/fan_controller; }
runs() { service >/dev/null; }
runs_anew() { runs && [[ $(service) != "$1" ]]; }            # PID of the former one
is_gone() { ! runs; }
at_work() { pwm_is "$1" && mode_is 1 && [[ -d $folder ]]; } # COMMAND
given_back() { mode_is 2 && [[ ! -e $folder ]]; }
is_once() { [[ $(service | wc -w) == 1 ]]; }
uptime_is() { (($(cut -d. -f1 /proc/uptime) >= $1)); }

# --- The journal, from the moment of mark on ---

mark() { sleep 1.1; since=$(date +%s); }
journal() {
  journalctl --sync 2>/dev/null # what was just said may be on its way
  journalctl -q --no-pager -o cat --since="@$since" "$@"
}
said() { journal "${@:2}" | grep -Fq -- "$1"; } # TEXT [OPTION...]
times_said() { journal "${@:2}" | grep -Fc -- "$1"; }

notify_pauses() { [[ $(systemctl show -p SubState --value fanctl-notify.service) == start-post ]]; }

# --- What the hook was told: a line an event ---

is_told() { (($(grep -c "^$1 " $told) == ${2:-1})); } # EVENT [TIMES]

# stats PATH...: type, mode, owner and group. are TEXT PATH...: all of them are TEXT.
stats() { stat -c '%F, %a %U:%G  %n' -- "$@"; }
are() {
  local others
  others=$(stats "${@:2}" 2>&1 | grep -v "^$1  ") || return 0
  echo "$others"
  return 1
}
is_file() { are 'regular file, 644 root:root' "$@"; }
is_folder() { are 'directory, 755 root:root' "$@"; }
is_flag() { are 'regular empty file, 644 root:root' "$@"; }

none() { ! "$@"; }
