// The chips of the kernel's hwmon class, as sysfs shows them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One entry of /sys/class/hwmon. Its attributes lie in its own folder or, with older drivers, in
/// the folder of the device above it.
struct Chip {
  std::string name;     ///< as its driver calls it, such as adt7475
  std::string address;  ///< bus and address, such as i2c-0-2e; virtual-0 without a device
  std::string folder;   ///< its own, with the number that may change at boot
  std::string device;   ///< of the device above; empty when there is none
  std::string stable;   ///< the device by its bus and name, which stays the same; may be empty

  /// Name and address, which tell chips of the same name apart.
  std::string id() const { return name + "-" + address; }
  /// The full path of an attribute; empty when the chip does not have it.
  std::string find(std::string_view attribute) const;
  /// The first line of an attribute; nothing when it cannot be read.
  std::optional<std::string> read(std::string_view attribute) const;
  /// The numbers N of the attributes prefix + N + suffix, ascending: {1, 2} for pwm1 and pwm2.
  std::vector<int> numbers(std::string_view prefix, std::string_view suffix) const;
};

/// All chips, in the order of their numbers; none when there is no such class.
std::vector<Chip> list_chips();

/// The first line of a file, as the service reads attributes; nothing when it cannot be read.
std::optional<std::string> read_attribute(const std::string& path);

/// The whole number of a file such as pwm1; nothing when it cannot be read or holds something else.
std::optional<int> read_number(const std::string& path);

/// What the driver's documentation calls a value of pwmN_enable.
std::string mode_name(std::string_view chip, std::string_view value);

/// The value of pwmN_enable with which a chip takes commands: a duty cycle, or a target speed.
std::string manual_mode(std::string_view chip, bool targetSpeed);
