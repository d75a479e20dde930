// An appliance laid out in a folder of its own, for programs that have the simulation linked in.
#ifndef APPLIANCE_LAYOUT_H
#define APPLIANCE_LAYOUT_H

#include <filesystem>
#include <string>
#include <vector>

// A fresh folder that this program's absolute paths are sent to, and a clock at 0, for as long as
// the object lives. Children that are started meanwhile find the same appliance. The folder's path
// can be used in LD_PRELOAD, whatever the folder for temporary files is called.
class Appliance {
 public:
  Appliance();
  ~Appliance();
  Appliance(const Appliance&) = delete;
  Appliance& operator=(const Appliance&) = delete;

  // Where one of the appliance's paths really lies.
  std::string at(const std::string& path) const { return m_root + path; }
  // What a plain file holds at this moment; a program may go on writing to it. Empty without one.
  std::string read(const std::string& path) const;
  bool exists(const std::string& path) const { return std::filesystem::exists(at(path)); }
  void remove(const std::string& path) const { std::filesystem::remove(at(path)); }
  // Makes the folders above it as well.
  void write(const std::string& path, const std::string& text) const;
  // A disk, as disks.cpp wants it described: lines of name=value.
  void disk(const std::string& name, const std::string& description) const;
  // A fan driver's directory with the attributes of an I2C chip or of a GPIO fan, all "0", and the
  // folder and links that sysfs adds.
  void fan(const std::string& folder, bool gpio) const;
  // A chip of the hwmon class with all the folders and links that sysfs has around it. Its folder
  // is /sys/devices/BUS/DEVICE below the appliance's root, without a device /sys/devices/virtual.
  struct Chip {
    int number;              // of hwmonN
    std::string name;        // as the driver calls it
    std::string device;      // BUS/DEVICE, such as i2c/0-002e; empty: a chip without a device
    std::string attributes;  // "pwm1=77 fan1_input=1205"
    bool inDevice = false;   // they lie in the device's folder, as older drivers have it
  };
  void chip(const Chip& chip) const;
  // The configuration directory, /etc/fan_controller; an empty text leaves the file out.
  void config(const std::string& settings, const std::string& table) const;
  // The journal's entries of these kinds, without their time ("syslog 6 text").
  std::vector<std::string> entries(const std::vector<std::string>& kinds) const;
  // The same, and the journal begins anew: for a program that has ended, or is this one.
  std::vector<std::string> journal(const std::vector<std::string>& kinds) const;

 private:
  // A link within the root: relative, as sysfs has them. Makes the folders above it as well.
  void link(const std::string& target, const std::string& path) const;

  std::string m_root;
};

#endif
