// The appliance as the model sees it: files, what happens to them as time passes, a journal.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

struct World {
  using Text = std::string;
  using Path = const std::string&;
  struct Killed {};
  struct Event {
    long long at;
    Text action, path, text;  // as in the timeline
  };
  inline static const Text kLibrary = "/run/corvane", kResource = kLibrary + "/resource-16";
  inline static const Text kFailed = "/var/tmp/fan_failed_alert";
  inline static const Text kHigh = "/var/tmp/high_temp_alert";
  inline static const Text kCritical = "/var/tmp/crit_temp_alert";

  std::map<Text, Text> files;
  std::map<Text, int> modes;  // the owner's digit, of files that are not open for everything
  std::vector<Event> events;
  std::vector<Text> watched;
  long long epoch = 0, now = 0;
  bool term = false, toNormal = false, toSpindown = false;  // signals that have come
  std::vector<Text> journal;
  Text directory, alarm;  // of the fan, as configured
  // What is found and measured.
  Text commandFile = {};
  std::vector<Text> devices = {};
  std::map<Text, int> drives = {};

  void say(const Text& text) { journal.push_back(std::to_string(now) + " " + text); }
  bool permits(Path path, int bit) const { return !modes.contains(path) || modes.at(path) & bit; }
  bool readable(Path path) const { return files.contains(path) && permits(path, 4); }
  void remove(Path path) { files.erase(path), modes.erase(path); }
  // The first line of a file, if it can be read and is not empty.
  std::optional<Text> attribute(Path path) const {
    if (!readable(path) || files.at(path).empty()) return std::nullopt;
    return files.at(path).substr(0, files.at(path).find('\n'));
  }
  // The watched files that have changed since they were shown last.
  void show() {
    for (Path path : watched) {
      const bool isThere = files.contains(path);
      const Text said = isThere ? "holds " + path + " " + files[path] : "lacks " + path;
      if (std::exchange(m_shown[path], said) != said) say(said);
    }
  }
  // The fan's driver, if nothing of its directory is missing.
  void discover() {
    const Text prefix = directory + "/", own = prefix + "fan1_alarm";
    const bool gpio = readable(prefix + "fan1_max");
    int names = 0;
    for (const auto& [path, text] : files) names += path.starts_with(prefix) && readable(path);
    if (directory.empty() || names != (gpio ? 11 : 10)) return;
    const bool speed = gpio || attribute(prefix + "pwm1_enable") == "2";
    commandFile = prefix + (speed ? "fan1_target" : "pwm1");
    if (alarm.empty() || (!attribute(alarm) && attribute(own))) alarm = own;
  }
  // The hottest disk, if the kernel has a list of them. A disk is asked two or three things.
  std::optional<int> measured(bool switchesSmartOn) {
    devices.clear();
    if (!readable("/proc/partitions")) return std::nullopt;
    drives.clear();
    int hottest = 0;
    static const std::regex whole("sd[a-z](?=[^0-9])");
    const Text list = files["/proc/partitions"];
    for (std::sregex_iterator disk(list.begin(), list.end(), whole), end; disk != end; ++disk) {
      const Text& device = devices.emplace_back("/dev/" + disk->str());
      if (!readable(device)) continue;
      for (int n = switchesSmartOn ? 3 : 2; n > 0; --n) say("sg_io " + disk->str());
      char model[40] = "", serial[21] = "";
      int degrees = 0;
      (void)std::sscanf(files[device].c_str(), "# disk\nmodel=%39s\nserial=%20s\ntemperature=%d",
                        model, serial, &degrees);
      const Text blanks(20 - std::strlen(serial), ' ');
      drives["Model: " + Text(model) + "\tSerial Nb : " + serial + blanks] = degrees;
      hottest = std::max(hottest, degrees);
    }
    return hottest;
  }
  Text clock() const {
    const std::time_t time = epoch + now;
    const std::tm date = *std::gmtime(&time);
    char text[64];
    (void)std::snprintf(text, sizeof text, "%d:%d:%d\t%d-%d-%d", date.tm_hour, date.tm_min,
                        date.tm_sec, date.tm_mday, date.tm_mon + 1, date.tm_year + 1900);
    return text;
  }
  // What the library has of the fan; nothing: not yet.
  std::optional<Text> delivered() const {
    if (!files.contains(kResource)) return "";
    if (files.at(kResource).size() > 1024) return std::nullopt;
    return files.at(kResource);
  }
  // One of the service's waits, which a signal ends early.
  void wait(const Text& call, int seconds) {
    say(call + " " + std::to_string(seconds));
    show();
    const long long end = now + seconds;
    while (m_next < events.size() && events[m_next].at <= end) {
      now = std::max(now, events[m_next].at);
      if (happen(events[m_next++])) return;
    }
    now = end;
  }
  // True: it is a signal with a handler.
  bool happen(const Event& event) {
    const auto& [at, action, path, text] = event;
    if (action == "write") files[path] = text + "\n";
    if (action == "remove") remove(path);
    if (action == "mode" && files.contains(path)) modes[path] = text[0] - '0';
    if (action != "signal") return false;
    if (path == "INT") throw Killed();
    term = term || path == "TERM";
    toSpindown = toSpindown || path == "USR1";
    toNormal = toNormal || path == "USR2";
    return true;
  }

 private:
  std::map<Text, Text> m_shown;
  std::size_t m_next = 0;
};
