#include "layout.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "appliance.h"

namespace fs = std::filesystem;

// The dynamic linker takes LD_PRELOAD apart at blanks and colons and replaces what follows a dollar
// sign; a library in this folder can be named there.
static fs::path folder_for_roots() {
  constexpr char kSafe[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+-";
  const fs::path folder = fs::temp_directory_path();
  return folder.native().find_first_not_of(kSafe) == std::string::npos ? folder : "/tmp";
}

Appliance::Appliance() : m_root(folder_for_roots() / "appliance-XXXXXX") {
  if (mkdtemp(m_root.data()) == nullptr) std::abort();
  for (const char* folder :
       {"/run", "/var/run", "/var/tmp", "/dev", "/sys", "/proc", "/etc", "/var/lib"}) {
    fs::create_directories(at(folder));
  }
  write("/proc/uptime", "1000000.00 1000000.00\n");
  setenv("APPLIANCE_ROOT", m_root.c_str(), 1);
  setenv("CORVANE_DIR", at("/corvane").c_str(), 1);
  setenv("TZ", "UTC", 1);
  appliance_reset();
}

Appliance::~Appliance() {
  for (const char* name : {"APPLIANCE_ROOT", "APPLIANCE_EPOCH", "APPLIANCE_SPEED"}) unsetenv(name);
  std::error_code ignored;
  fs::remove_all(m_root, ignored);
}

std::string Appliance::read(const std::string& path) const {
  std::ifstream file(at(path), std::ios::binary | std::ios::ate);
  const auto size = static_cast<std::streamsize>(file.tellg());  // -1 without a file
  std::string text(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
  file.seekg(0);
  file.read(text.data(), size);
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

void Appliance::write(const std::string& path, const std::string& text) const {
  fs::create_directories(fs::path(at(path)).parent_path());
  std::ofstream(at(path), std::ios::binary) << text;
}

void Appliance::disk(const std::string& name, const std::string& description) const {
  write("/dev/" + name, "# disk\n" + description);
}

void Appliance::fan(const std::string& folder, bool gpio) const {
  for (const char* name : {"fan1_alarm", "fan1_input", "fan1_target", "modalias", "name", "pwm1",
                           "pwm1_enable", "pwm1_mode", "uevent", "power/control"}) {
    write(folder + "/" + name, "0\n");
  }
  if (gpio) {
    write(folder + "/fan1_max", "0\n");
    write(folder + "/fan1_min", "0\n");
  } else {
    write(folder + "/fan1_div", "0\n");
  }
  fs::create_symlink(at("/sys"), at(folder + "/subsystem"));
  fs::create_symlink("/nowhere", at(folder + "/dangling"));
}

void Appliance::link(const std::string& target, const std::string& path) const {
  const fs::path folder = fs::path(path).parent_path();
  fs::create_directories(at(folder));
  fs::create_symlink(fs::path(target).lexically_relative(folder), at(path));
}

void Appliance::chip(const Chip& chip) const {
  const std::string entry = "hwmon" + std::to_string(chip.number);
  const fs::path device(chip.device);
  const std::string above = "/sys/devices/" + (chip.device.empty() ? "virtual" : chip.device);
  const std::string folder = above + "/hwmon/" + entry;
  const std::string holder = chip.inDevice ? above : folder;
  write(holder + "/name", chip.name + "\n");
  write(folder + "/uevent", "");
  write(folder + "/power/control", "auto\n");
  link("/sys/class/hwmon", folder + "/subsystem");
  link(folder, "/sys/class/hwmon/" + entry);
  std::istringstream words(chip.attributes);
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    write(holder + "/" + word.substr(0, equals), word.substr(equals + 1) + "\n");
  }
  if (chip.device.empty()) return;
  const std::string bus = "/sys/bus/" + device.parent_path().string();
  write(above + "/modalias", device.parent_path().string() + ":" + chip.name + "\n");
  write(above + "/uevent", "DRIVER=" + chip.name + "\n");
  link(above, folder + "/device");
  link(above, bus + "/devices/" + device.filename().string());
  link(bus, above + "/subsystem");
}

void Appliance::config(const std::string& settings, const std::string& table) const {
  const std::string folder = "/etc/fan_controller";
  fs::create_directories(at(folder));
  if (!settings.empty()) write(folder + "/fan_controller.conf", settings);
  if (!table.empty()) write(folder + "/fan_cmd_tab.conf", table);
}

std::vector<std::string> Appliance::entries(const std::vector<std::string>& kinds) const {
  std::vector<std::string> found;
  std::ifstream file(at("/journal"));
  for (std::string line; std::getline(file, line);) {
    const std::string entry = line.substr(line.find(' ') + 1);
    const std::string kind = entry.substr(0, entry.find(' '));
    if (std::find(kinds.begin(), kinds.end(), kind) != kinds.end()) found.push_back(entry);
  }
  return found;
}

std::vector<std::string> Appliance::journal(const std::vector<std::string>& kinds) const {
  auto found = entries(kinds);
  fs::remove(at("/journal"));
  return found;
}
