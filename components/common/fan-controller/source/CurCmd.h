// The fan command in force and its way to the driver.
#pragma once

#include <string>

/// Holds the fan command last set and writes a changed one to the driver's command attribute (the
/// kernel's hwmon sysfs interface: pwm1 or fan1_target).
class CurCmd {
 public:
  /// A holder without an attribute: commands are remembered, nothing is written.
  CurCmd();
  /// driverPath: full path of the command attribute; empty on a fanless product.
  explicit CurCmd(const std::string& driverPath);
  ~CurCmd();
  CurCmd(const CurCmd&) = delete;
  CurCmd& operator=(const CurCmd&) = delete;

  /// Makes value, in the attribute's own units, the command in force and writes it if it differs
  /// from the one before. A failed write is not repeated until another command is set.
  void set_cur_cmd_val(int value);

  /// Writes one command record of 32 bytes, decimal text padded with NUL, to the attribute. 1 when
  /// the attribute could be opened, else 0; that the driver refuses the value is not noticed.
  int sendCommandToDriver(int value, char const* path);

  std::string m_driverPath;
  int m_currentCmd = -1;  ///< -1: none yet
};
