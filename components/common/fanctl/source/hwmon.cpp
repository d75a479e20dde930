#include "hwmon.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>
#include <set>

#include "files.h"
#include "utils.h"

namespace {

constexpr char kClass[] = "/sys/class/hwmon";

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// How a kind of bus writes the address of a device, empty for a bus that has none. The device's
// name in sysfs is "0-002e" for an I2C device, "0000:00:18.3" for a PCI one, "2:0:0:0" for a SCSI
// one and "nct6775.656" for a platform device.
std::string address_of(const std::string& bus, const std::string& device) {
  unsigned int a = 0, b = 0, c = 0, d = 0;
  const char* name = device.c_str();
  char text[64];
  text[0] = '\0';
  if (bus == "i2c" && std::sscanf(name, "%u-%x", &a, &b) == 2) {
    (void)std::snprintf(text, sizeof text, "i2c-%u-%02x", a, b);
  } else if (bus == "pci" && std::sscanf(name, "%x:%x:%x.%x", &a, &b, &c, &d) == 4) {
    (void)std::snprintf(text, sizeof text, "pci-%04x", (a << 16) + (b << 8) + (c << 3) + d);
  } else if (bus == "scsi" && std::sscanf(name, "%u:%u:%u:%x", &a, &b, &c, &d) == 4) {
    (void)std::snprintf(text, sizeof text, "scsi-%u-%x", a, (b << 8) + (c << 4) + d);
  } else if (bus == "spi" && std::sscanf(name, "spi%u.%u", &a, &b) == 2) {
    (void)std::snprintf(text, sizeof text, "spi-%u-%x", a, b);
  } else if (bus == "platform" || bus == "of_platform") {
    const std::size_t dot = device.rfind('.');
    const int address = dot == std::string::npos ? 0 : parse_int(name + dot + 1);
    (void)std::snprintf(text, sizeof text, "isa-%04x", static_cast<unsigned int>(address));
  } else if (bus == "hid" && std::sscanf(name, "%x:%x:%x.%x", &a, &b, &c, &d) == 4) {
    (void)std::snprintf(text, sizeof text, "hid-%u-%x", a, d);
  } else if (bus == "acpi") {
    return "acpi-0";
  }
  return text;
}

std::string bus_of(const std::string& device) {
  return base_name(real_path(device + "/subsystem"));
}

Chip describe(const std::string& entry) {
  Chip chip;
  chip.folder = join({kClass, "/", entry});
  chip.address = "virtual-0";
  if (const std::string device = real_path(chip.folder + "/device"); !device.empty()) {
    chip.device = device;
    const std::string stable = join({"/sys/bus/", bus_of(device), "/devices/", base_name(device)});
    if (exists(stable)) chip.stable = stable;
    // A device of a bus without addresses, such as a disk's, has that of the device above it.
    for (std::string place = device; place.size() > 1; place = parent_of(place)) {
      const std::string address = address_of(bus_of(place), base_name(place));
      if (address.empty()) continue;
      chip.address = address;
      break;
    }
  }
  if (const auto name = chip.read("name")) chip.name = *name;
  return chip;
}

// The number in prefix + number + suffix; 0 when the name is another one.
int number_in(std::string_view name, std::string_view prefix, std::string_view suffix) {
  if (!name.starts_with(prefix) || !name.ends_with(suffix)) return 0;
  if (name.size() <= prefix.size() + suffix.size()) return 0;
  const std::string digits(name.substr(prefix.size(), name.size() - prefix.size() - suffix.size()));
  if (digits.find_first_not_of("0123456789") != std::string::npos) return 0;
  return parse_int(digits.c_str());
}

// Modes as the drivers' documentation in the kernel's tree has them. Without a row the words of the
// hwmon interface hold.
struct ModeRow {
  std::string_view chip;
  std::string_view value;
  std::string_view name;
};
constexpr ModeRow kModeRows[] = {
    {"amc6821", "2", "automatic, remote sensor"},
    {"amc6821", "3", "automatic, hottest sensor"},
    {"emc2103", "0", "no control"},
    {"emc2103", "3", "target speed"},
    {"f75375", "3", "target speed"},
    {"f75373", "3", "target speed"},
    {"f75387", "3", "target speed"},
    {"max6650", "2", "target speed"},
    {"max6650", "3", "off"},
    {"", "0", "full speed"},
    {"", "1", "manual"},
    {"", "2", "automatic"},
};

// Drivers whose target speed is taken in another mode than 2.
constexpr ModeRow kTargetRows[] = {
    {"emc2103", "3", ""}, {"f75375", "3", ""}, {"f75373", "3", ""},
    {"f75387", "3", ""},  {"", "2", ""},
};

bool is_of(const ModeRow& row, std::string_view chip) {
  return row.chip.empty() || chip.starts_with(row.chip);
}

}  // namespace

std::string Chip::find(std::string_view attribute) const {
  for (const std::string& place : {folder, device}) {
    if (place.empty()) continue;
    std::string path = join({place, "/", attribute});
    if (exists(path)) return path;
  }
  return {};
}

std::optional<std::string> Chip::read(std::string_view attribute) const {
  return read_attribute(find(attribute));
}

std::vector<int> Chip::numbers(std::string_view prefix, std::string_view suffix) const {
  std::set<int> found;
  for (const std::string& place : {folder, device}) {
    if (place.empty()) continue;
    for (const std::string& entry : names_in(place)) {
      const int number = number_in(entry, prefix, suffix);
      if (number > 0) found.insert(number);
    }
  }
  return {found.begin(), found.end()};
}

std::vector<Chip> list_chips() {
  std::set<int> numbers;
  for (const std::string& name : names_in(kClass)) {
    if (name.starts_with("hwmon")) numbers.insert(parse_int(name.c_str() + 5));
  }
  std::vector<Chip> chips;
  for (const int number : numbers) {
    Chip chip = describe("hwmon" + std::to_string(number));
    if (!chip.name.empty()) chips.push_back(std::move(chip));
  }
  return chips;
}

std::optional<std::string> read_attribute(const std::string& path) {
  const auto value = sysfs_read_attr(path.c_str());
  if (!value) return std::nullopt;
  return std::string(value.get());
}

std::optional<int> read_number(const std::string& path) {
  const auto text = read_attribute(path);
  const std::size_t first = text ? text->find_first_not_of(" \t+-") : std::string::npos;
  if (first == std::string::npos || std::isdigit(static_cast<unsigned char>((*text)[first])) == 0) {
    return std::nullopt;
  }
  return parse_int(text->c_str());
}

std::string mode_name(std::string_view chip, std::string_view value) {
  const auto row = std::ranges::find_if(
      kModeRows, [&](const ModeRow& each) { return is_of(each, chip) && each.value == value; });
  if (row != std::end(kModeRows)) return std::string(row->name);
  return "automatic, the chip's own kind";
}

std::string manual_mode(std::string_view chip, bool targetSpeed) {
  if (!targetSpeed) return "1";
  const auto row =
      std::ranges::find_if(kTargetRows, [&](const ModeRow& each) { return is_of(each, chip); });
  return std::string(row->value);
}
