#include "link-plan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <vector>

#include "files.h"
#include "settings.h"

// --- Which chip ---

namespace {

bool is_meant(const Chip& chip, const std::string& name) {
  if (name.find('/') == std::string::npos) return chip.name == name || chip.id() == name;
  const std::string real = real_path(name);
  return !real.empty() && (real == real_path(chip.folder) || real == chip.device);
}

std::string list_ids(const std::vector<Chip>& chips) {
  std::string list;
  for (const Chip& chip : chips) list += (list.empty() ? "" : ", ") + chip.id();
  return list.empty() ? "none; load the module of the fan's driver" : list;
}

// Takes ":2" off the end; a colon within a path belongs to the path.
int take_channel(std::string& name) {
  const std::size_t colon = name.rfind(':');
  if (colon == std::string::npos || colon + 1 == name.size()) return 1;
  const std::string digits = name.substr(colon + 1);
  if (digits.find_first_not_of("0123456789") != std::string::npos) return 1;
  if (name.find('/') != std::string::npos && exists(name)) return 1;
  name.resize(colon);
  return parse_int(digits.c_str());
}

}  // namespace

void refuse(std::initializer_list<TextPiece> pieces) { throw Refusal(join(pieces)); }

Choice choose(const std::string& wanted) {
  Choice choice;
  std::string name = wanted;
  choice.channel = take_channel(name);
  const std::vector<Chip> all = list_chips();
  std::vector<Chip> meant;
  std::ranges::copy_if(all, std::back_inserter(meant),
                       [&](const Chip& chip) { return is_meant(chip, name); });
  if (meant.empty()) {
    throw NoSuchChip(join({"there is no chip ", name, ". There are: ", list_ids(all)}));
  }
  if (meant.size() > 1) refuse({"more than one chip is called ", name, ": ", list_ids(meant)});
  choice.chip = meant.front();
  return choice;
}

// --- What the folder will hold ---

namespace {

// From which of the chip's attributes an entry is taken, the first that can be read; # stands for
// the channel's number. Without one it is a plain file.
struct EntryRow {
  std::string_view entry;
  std::vector<std::string> attributes;
  const char* neutral;
};

std::string with_number(std::string attribute, int number) {
  const std::size_t place = attribute.find('#');
  if (place != std::string::npos) attribute.replace(place, 1, std::to_string(number));
  return attribute;
}

std::string channel_list(const Chip& chip) {
  std::vector<int> channels = chip.numbers("pwm", "");
  for (const int n : chip.numbers("fan", "_target")) channels.push_back(n);
  std::ranges::sort(channels);
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  std::string list;
  for (const int n : channels) list += (list.empty() ? "" : ", ") + std::to_string(n);
  return list;
}

}  // namespace

Plan make_plan(const Choice& choice) {
  const Chip& chip = choice.chip;
  // The real path: the class's own has a number that another chip may get when a driver is loaded
  // again.
  const auto find = [&](const std::string& attribute) {
    return in_real_folder(chip.find(with_number(attribute, choice.channel)));
  };
  Plan plan;
  plan.closeLoop = find("pwm#").empty();
  plan.commandPath = find(plan.closeLoop ? "fan#_target" : "pwm#");
  if (plan.commandPath.empty()) {
    const std::string channels = channel_list(chip);
    if (channels.empty()) {
      refuse(
          {chip.id(), " has neither a PWM nor a target speed: no fan can be controlled with it"});
    }
    refuse({chip.id(), " has no channel ", choice.channel, ". It has: ", channels});
  }
  if (!Descriptor(::open(plan.commandPath.c_str(), O_WRONLY | O_CLOEXEC))) {
    refuse({plan.commandPath, " cannot be written: ", std::strerror(errno)});
  }
  plan.modePath = find("pwm#_enable");
  plan.mode = manual_mode(chip.name, plan.closeLoop);

  const EntryRow rows[] = {
      {"fan1_alarm", {"fan#_alarm", "fan#_fault", "fan#_min_alarm"}, "0"},
      {"fan1_div", {"fan#_div"}, "1"},
      {"fan1_input", {"fan#_input"}, "0"},
      {"fan1_target", {"fan#_target"}, "0"},
      {"modalias", {"modalias"}, "none"},
      {"name", {"name"}, "fan"},
      {"pwm1", {"pwm#"}, "0"},
      // The service knows one number for a target speed; the chip may have another.
      {"pwm1_enable",
       plan.closeLoop ? std::vector<std::string>{} : std::vector<std::string>{"pwm#_enable"},
       plan.closeLoop ? "2" : "1"},
      {"pwm1_mode", {"pwm#_mode"}, "1"},
      {"uevent", {"uevent"}, "none"},
  };
  for (const EntryRow& row : rows) {
    std::string source;
    for (const std::string& attribute : row.attributes) {
      const std::string path = find(attribute);
      if (source.empty() && is_readable(path)) source = path;
    }
    if (source.empty()) {
      plan.files[std::string(row.entry)] = row.neutral;
    } else {
      plan.links[std::string(row.entry)] = source;
    }
  }
  if (!plan.links.contains(plan.closeLoop ? "fan1_target" : "pwm1")) {
    refuse({plan.commandPath, " cannot be read, so the service would not know the driver"});
  }
  return plan;
}

std::string sensor_path(const Choice& choice) {
  std::string path = in_real_folder(choice.chip.find(with_number("temp#_input", choice.channel)));
  if (!read_attribute(path)) {
    refuse({choice.chip.id(), " has no temperature ", choice.channel, " that can be read"});
  }
  return path;
}

bool read_boot_file(const std::string& path, BootLink& boot) {
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) {
    if (errno == ENOENT) return false;
    refuse({path, " cannot be read: ", std::strerror(errno)});
  }
  Setting line;
  while (next_setting(file.get(), line)) {
    if (line.key == "chip") boot.chip = line.value;
    if (line.key == "folder") boot.folder = line.value;
    if (line.key == "sensor") boot.sensor = line.value;
  }
  return true;
}

bool is_linked_folder(const std::string& folder) { return exists(folder + LINK_RECORD); }

bool is_filler(const std::string& folder, std::string_view entry) {
  struct stat status {};
  return is_linked_folder(folder) && ::lstat(join({folder, "/", entry}).c_str(), &status) == 0 &&
         !S_ISLNK(status.st_mode);
}
