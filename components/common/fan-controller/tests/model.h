// What the service has to do, told once more and in other words than in its code: the temperature's
// command, the alerts, the fan's supervision, the status file, the modes, the waits.
#pragma once

#include "world.h"

struct Model : World {
  enum Alert { FAILED, WORKING, HIGH, NORMAL, CRITICAL, NO_CONFIG, NO_TABLE, NO_PID_FILE };

  std::map<int, int> table = {};
  Text sensor, status, pidFile;
  int period = 180, critical = 65;
  bool hysteresis = false, once = false;

  void run() {
    const Text pid = "/var/run/fan_controller.pid", folder = "/etc/fan_controller/";
    if (!permits(pid, 2)) alert(NO_PID_FILE);
    files[pid] = "";
    if (!finds(folder + "fan_controller.conf", NO_CONFIG)) return;
    discover();
    if (!finds(folder + "fan_cmd_tab.conf", NO_TABLE)) return;
    heat = readable(kCritical) ? CRITICAL : readable(kHigh) ? HIGH : NORMAL;
    fan = readable(kFailed) ? FAILED : WORKING;
    if (permits(kLibrary, 4)) fetched();
    for (bool first = true; !term; first = false) {
      journal.push_back("4 : m_lastFanAlert " + std::to_string(fan));
      journal.push_back("4 : m_lastTempAlert " + std::to_string(heat));
      if (toNormal) {
        spindown = toNormal = false;
      } else if (std::exchange(toSpindown, false)) {
        set(lowest().second);
        spindown = true;
      }
      if (!spindown) refresh(first);
      if (once) break;
      if (!commandFile.empty() && readable(alarm)) {
        wait("select", period);
        checkAlarm(true);
      } else if (!counts(period) && !commandFile.empty()) {
        set(lowest().second);
      }
    }
    remove(pidFile);
  }

  using Step = std::pair<int, int>;
  Step lowest() const { return table.empty() ? Step() : Step(*table.begin()); }
  Step highest() const { return table.empty() ? Step() : Step(*table.rbegin()); }

  bool counts(int seconds) {
    for (; seconds > 0 && !term; --seconds) wait("sleep", 1);
    return seconds == 0;
  }
  bool finds(Path path, Alert missing) {
    for (bool told = false; !readable(path);) {
      told = told || alert(missing);
      wait("sleep", 1);  // a signal that is there already is seen after this
      if (!counts(299) || term) return false;
    }
    return true;
  }
  Text fetched() {
    auto held = delivered();
    for (int retry = 0; !held && retry < 30; ++retry) held = delivered(), wait("sleep", 10);
    return held.value_or("");
  }
  bool alert(Alert kind) {
    if (!permits(kLibrary, 4)) return false;
    Text held = fetched();
    const auto tell = [&](const Text& word) {
      journal.push_back("Send fan status " + word + " to corvane");
      files[kResource] = held = "status=" + word + "\n";
    };
    if (kind == NO_CONFIG) tell("MissingConfig");
    if (kind == NO_TABLE) tell("FanNonRotating");
    if (kind == FAILED) fan = kind, files[kFailed] = "", tell("FanFailed");
    if (kind == WORKING) {
      fan = kind, remove(kFailed), tell("FanRaisedFromDead");
      refresh(false);
    } else if (kind == HIGH) {
      heat = kind, dump(), remove(kCritical), files[kHigh] = "", tell("TemperatureAlert");
    } else if (kind == NORMAL) {
      heat = kind, remove(readable(kCritical) ? kCritical : kHigh), tell("OK");
    } else if (kind == CRITICAL) {
      heat = kind, dump(), remove(kHigh), files[kCritical] = "", tell("TemperatureTooHigh");
    }
    files[kResource] = held;
    return true;
  }
  void dump() {
    if (status.empty() || !permits(status, 2)) return;
    const int level = highest().first;
    const auto state = [&](int degrees) { return Text(degrees < level ? "OK " : "HOT "); };
    Text text = "# Tarvo Fan Controller Service\n# Current state for HDD temperatures\n# " +
                std::to_string(level) +
                "degC is considered as the alert level for HDD temperature\n" +
                "# System time : " + clock() + "\n";
    if (attribute(sensor))
      text +=
          "System Temp is " + state(temperature) + ": " + std::to_string(temperature) + "degC\n";
    auto drive = drives.begin();
    for (std::size_t n = 0; !attribute(sensor) && n < std::min(devices.size(), drives.size());
         ++drive) {
      text +=
          devices[n] + "_is_" + state(drive->second) + "; Temp HDD" + std::to_string(n + 1) + " = ";
      text += std::to_string(drive->second) + "degC  [" + drive->first + "]\n", ++n;
    }
    files[status] = text;
  }
  void set(int value) {
    if (std::exchange(command, value) == value) return;
    if (commandFile.empty() || !permits(commandFile, 2)) return;
    say("syslog 6 Send new value to fan " + (files[commandFile] = std::to_string(value)));
  }
  void take(int degrees) {
    const int previous = std::exchange(temperature, degrees);
    dump();
    const auto [bottom, slowest] = lowest();
    const auto [top, fastest] = highest();
    if (degrees > top) {
      set(fastest);
      if (degrees > critical || heat != HIGH) alert(degrees > critical ? CRITICAL : HIGH);
      return;
    }
    if (degrees <= bottom) set(slowest);
    if (degrees < top && heat != NORMAL) alert(NORMAL);
    if (degrees <= bottom) return;
    const auto upper = table.lower_bound(degrees), lower = std::prev(upper);
    const bool nearer = upper->first - degrees < degrees - lower->first;
    set((hysteresis ? previous <= degrees : nearer) ? upper->second : lower->second);
  }
  void refresh(bool activate) {
    if (const auto text = attribute(sensor)) return take(std::atoi(text->c_str()) / 1000);
    if (const auto degrees = measured(activate)) take(*degrees);
  }
  void checkAlarm(bool restart) {
    const auto value = attribute(alarm);
    if (value == "1") clear = 0;
    if (value == "1" && restart && fan == WORKING) {
      set(highest().second), wait("sleep", 10), checkAlarm(false);
    }
    if (value == "1" && !restart) alert(FAILED);
    if (value && value != "1" && fan == FAILED && ++clear == 3) alert(WORKING), clear = 0;
    if (value && !restart) refresh(false);
  }

  Alert fan = WORKING, heat = NORMAL;
  int temperature = -1, command = -1, clear = 0;
  bool spindown = false;
};
