// fanctl hardware: what the machine has, and what of it the service could use.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "disk-state.h"
#include "disk-text.h"
#include "hwmon.h"
#include "terminal.h"
#include "utils.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kNameWidth = 13;
constexpr std::size_t kValueWidth = 40;

void row(const std::string& name, const std::string& value, const std::string& use) {
  std::string line =
      join({"  ", padded(name, kNameWidth), padded(value, kValueWidth - 1), " ", use});
  line.erase(line.find_last_not_of(' ') + 1);
  (void)std::printf("%s\n", printable(line).c_str());
}

// How to name a channel or a temperature to `fanctl link`: as short as it stays unmistakable.
std::string short_name(const std::vector<Chip>& chips, const Chip& chip, int number) {
  const bool alone = std::ranges::count(chips, chip.name, &Chip::name) == 1;
  std::string name = alone ? chip.name : chip.id();
  if (number != 1) name += join({":", number});
  return name;
}

// 41250 thousandths as "41.2".
std::string tenths(int thousandths) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f", thousandths / 1000.0);
  return text;
}

struct Channel {
  int number;
  std::string attribute;  ///< pwmN or fanN_target
  bool targetSpeed;       ///< the only control is a target speed
};

// The PWMs of a chip, and the target speeds of fans without one.
std::vector<Channel> channels_of(const Chip& chip) {
  std::vector<Channel> channels;
  for (const int n : chip.numbers("pwm", "")) channels.push_back({n, join({"pwm", n}), false});
  for (const int n : chip.numbers("fan", "_target")) {
    if (chip.find(join({"pwm", n})).empty())
      channels.push_back({n, join({"fan", n, "_target"}), true});
  }
  return channels;
}

Json describe_channel(const std::vector<Chip>& chips, const Chip& chip, const Channel& channel) {
  Json json = {{"channel", channel.number}, {"attribute", channel.attribute}};
  if (const auto value = chip.read(channel.attribute)) json["value"] = parse_int(value->c_str());
  if (const auto mode = chip.read(join({"pwm", channel.number, "_enable"}))) {
    json["mode"] = parse_int(mode->c_str());
    json["mode_name"] = mode_name(chip.name, *mode);
  }
  json["link"] = "fanctl link " + short_name(chips, chip, channel.number);
  return json;
}

Json describe_fan(const Chip& chip, int number) {
  Json json = {{"number", number}};
  if (const auto speed = chip.read(join({"fan", number, "_input"}))) {
    json["rpm"] = parse_int(speed->c_str());
  }
  return json;
}

Json describe_temperature(const std::vector<Chip>& chips, const Chip& chip, int number) {
  const std::string attribute = join({"temp", number, "_input"});
  Json json = {{"number", number}};
  if (const auto label = chip.read(join({"temp", number, "_label"})))
    json["label"] = printable(*label);
  json["path"] = chip.find(attribute);
  if (const auto value = chip.read(attribute)) {
    json["celsius"] = parse_int(value->c_str()) / 1000.0;
    json["link"] = "--sensor " + short_name(chips, chip, number);
  }
  return json;
}

Json describe_chip(const std::vector<Chip>& chips, const Chip& chip) {
  Json json = {{"name", chip.name}, {"id", chip.id()}, {"folder", chip.folder}};
  if (!chip.stable.empty()) json["path"] = chip.stable;
  json["channels"] = json["fans"] = json["temperatures"] = Json::array();
  for (const Channel& each : channels_of(chip)) {
    json["channels"].push_back(describe_channel(chips, chip, each));
  }
  for (const int n : chip.numbers("fan", "_input")) json["fans"].push_back(describe_fan(chip, n));
  for (const int n : chip.numbers("temp", "_input")) {
    json["temperatures"].push_back(describe_temperature(chips, chip, n));
  }
  return json;
}

// --- For people ---

std::string number_or(const Json& json, const char* key, const char* otherwise) {
  return json.contains(key) ? std::to_string(json[key].get<int>()) : otherwise;
}

void print_chip(const Json& chip) {
  (void)std::printf("%s  %s\n", bold(printable(chip["id"].get<std::string>())).c_str(),
                    chip.value("path", chip["folder"].get<std::string>()).c_str());
  for (const Json& channel : chip["channels"]) {
    std::string value = number_or(channel, "value", "?");
    value += channel["attribute"].get<std::string>().starts_with("pwm") ? " of 255" : " rpm wanted";
    if (channel.contains("mode")) {
      value += join(
          {", ", channel["mode_name"].get<std::string>(), " (", channel["mode"].get<int>(), ")"});
    }
    row(channel["attribute"], value, channel["link"]);
  }
  for (const Json& fan : chip["fans"]) {
    row(join({"fan", fan["number"].get<int>()}), number_or(fan, "rpm", "?") + " rpm", "");
  }
  for (const Json& temperature : chip["temperatures"]) {
    const bool isRead = temperature.contains("celsius");
    std::string value = "cannot be read";
    if (isRead) {
      value = tenths(static_cast<int>(temperature["celsius"].get<double>() * 1000)) + " C";
    }
    if (temperature.contains("label")) value += "  " + temperature["label"].get<std::string>();
    row(join({"temp", temperature["number"].get<int>()}), value,
        isRead ? temperature["link"].get<std::string>() : "");
  }
}

void print_disk(const DiskState& disk) {
  const bool sleeps = disk.power == PowerMode::kStandby;
  const char* use = sleeps || disk.temperature != 0 ? "disk" : "none: counts as 0 degrees";
  row(disk.path, describe_disk(disk), disk.opened ? use : "");
}

void print_all(const Json& chips, const DiskList& disks) {
  (void)std::printf(
      "%s\n",
      bold(join({padded("", 2 + kNameWidth + kValueWidth), "what the service can use"})).c_str());
  for (const Json& chip : chips) print_chip(chip);
  if (!disks.disks.empty()) (void)std::printf("%s\n", bold("disks").c_str());
  for (const DiskState& disk : disks.disks) print_disk(disk);
}

}  // namespace

ExitStatus run_hardware(const Options& options) {
  const std::vector<Chip> chips = list_chips();
  const DiskList disks = list_disk_states();
  Json described = Json::array();
  for (const Chip& chip : chips) described.push_back(describe_chip(chips, chip));
  if (options.json) {
    Json all = {{"chips", described}, {"disks", Json::array()}};
    for (const DiskState& disk : disks.disks) all["disks"].push_back(disk_as_json(disk));
    (void)std::printf("%s\n", all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
  } else {
    print_all(described, disks);
  }
  if (chips.empty()) {
    (void)std::fputs("no hwmon chip: load the module of your fan's driver (modprobe)\n", stderr);
  }
  if (!disks.listed) (void)std::fputs("/proc/partitions cannot be read\n", stderr);
  return chips.empty() || !disks.listed ? EXIT_WARNINGS : EXIT_FINE;
}
