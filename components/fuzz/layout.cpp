// The machine that every run begins with: a chip that fanctl link has presented to the service, a
// disk, and what service and companions have left.
#include "layout.h"

#include <cstdlib>

#include "machine.h"

using machine::keep;
using machine::keep_link;

void lay_out_machine() {
  (void)::setenv("TZ", "UTC0", 1);     // otherwise each look at a time looks for a file
  (void)::setenv("COLUMNS", "40", 1);  // a small picture is drawn sooner
  keep("/etc/fan_controller/fan_controller.conf",
       "fan_driver_sysfs_dir=/run/fan_controller/fan\n"
       "temp_sensor_sysfs_entry=/sys/class/hwmon/hwmon1/temp1_input\n"
       "dump_info_to_file=/run/fan_controller/status\n");
  keep("/etc/fan_controller/fan_cmd_tab.conf", "30=100\n40=150\n50=200\n");
  keep("/etc/fan_controller/fan_link.conf", "chip=adt7475\nfolder=/run/fan_controller/fan\n");
  keep("/etc/fan_controller/hooks.d/mail", "");

  const std::string chip = "/sys/class/hwmon/hwmon1/", fan = "/run/fan_controller/fan/";
  for (const auto* each : {"name=adt7475", "pwm1=100", "pwm1_enable=1", "fan1_input=900",
                           "fan1_target=0", "temp1_input=41000", "temp1_label=Board"}) {
    const std::string text = each;
    keep(chip + text.substr(0, text.find('=')), text.substr(text.find('=') + 1) + "\n");
  }
  keep_link(chip + "device", "/sys/devices/0-002e");
  keep_link("/sys/devices/0-002e/subsystem", "/sys/bus/i2c");
  keep_link("/sys/bus/i2c/devices/0-002e", "/sys/devices/0-002e");
  for (const char* each : {"name", "pwm1", "pwm1_enable", "fan1_input", "fan1_target"}) {
    keep_link(fan + each, chip + each);
  }
  for (const char* each : {"fan1_alarm", "fan1_div", "modalias", "pwm1_mode", "uevent"}) {
    keep(fan + each, "0\n");
  }
  keep(fan + ".link/record",
       "chip=adt7475-i2c-0-2e\nchannel=1\nmode_path=" + chip + "pwm1_enable\nmode_before=2\n");

  keep("/proc/partitions", "8 0 1953514584 sda\n");
  keep("/dev/sda", "");
  keep("/proc/uptime", "1000000.00 1000000.00\n");
  keep("/proc/1/comm", "fan_controller\n");
  keep("/proc/1/stat", "1 (fan_controller) S 1 1 1 0 -1 4 0 0 0 0 0 0 0 0 20 0 1 0 500 0 0\n");
  keep("/proc/1/status", "State:\tS (sleeping)\nShdPnd:\t0\nvoluntary_ctxt_switches:\t7\n");
  keep("/var/run/fan_controller.pid", "1\n");
  keep("/run/systemd/system/units", "");
  keep("/systemctl", "ActiveState=active\nSubState=running\nMainPID=1\n");
  keep("/run/fan_controller/status", "/dev/sda_is_OK ; Temp HDD1 = 41degC  [Model: X]\n");
  keep("/run/fan_controller/standby", "process=1\nstarted=500\nasleep=2\nmode=spindown\n");
  keep("/var/lib/fan_controller/guard_acted",
       "number=1\nstands=yes\nsince=1700000000\nreasons=hot\ntemperature=70\ntext=It was hot\n");
  keep("/var/tmp/high_temp_alert", "");

  keep("/day", "43200 load all seek\n46800 load all idle\n");
  keep("/enclosure",
       "step=0.2\nair_capacity=300\nboard_power=15\nwall_conductance=1\nfan_flow=0.01\n"
       "fan_speed=2000\nfan_start_speed=500\nfan_stall_speed=300\nfan_spin_up=2\nfan_power=2\n"
       "fan_command=255\nsensor_place=0.5\nsensor_lag=30\nsensor_resolution=250\n"
       "outside=0:22 21600:19 57600:27\ndisk_capacity=400\ndisk_idle_power=5\n"
       "disk_seek_power=7\ndisk_standby_power=1\ndisk_conductance=0.3\n"
       "disk_flow_conductance=1\ndisk=sda\ndisk=sdb\n");
}
