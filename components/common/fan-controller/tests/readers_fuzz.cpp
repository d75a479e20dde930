// Fuzz target of the service's readers. The first byte of an input chooses the reader, the rest is
// what it finds in its file. Beside what a sanitizer sees, a broken promise of the reader aborts.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "FanController.h"
#include "layout.h"
#include "utils.h"

namespace {

using Text = std::string;

void expect(bool promise) {
  if (!promise) std::abort();
}

// The paths that come out of it are never opened here: they lead anywhere on this machine.
void config_file(const Appliance& appliance, FanController& controller, const Text& text) {
  appliance.write("/etc/fan_controller/fan_controller.conf", text);
  expect(controller.loadConfig() && !controller.m_tempSensorPath.ends_with(' '));
  controller.m_dumpInfoFile.clear();
}

void command_table(const Appliance& appliance, FanController& controller, const Text& text) {
  appliance.write("/etc/fan_controller/fan_cmd_tab.conf", text);
  expect(controller.loadValuesTab());
  const auto& table = controller.m_valueMap;
  for (const int temperature : {INT_MIN, 0, alert_level(table), INT_MAX, 40, INT_MIN}) {
    controller.m_previousTemp = std::exchange(controller.m_currentTemp, temperature);
    expect(controller.processCmd());
    const auto above = table.lower_bound(temperature);
    const int chosen = controller.m_curCmd->m_currentCmd;
    expect(table.empty() ? chosen == 0
                         : (above != table.end() && chosen == above->second) ||
                               (above != table.begin() && chosen == std::prev(above)->second));
  }
}

void partition_list(const Appliance& appliance, FanController& controller, const Text& text) {
  appliance.write("/proc/partitions", text);
  appliance.disk("sda", "temperature=40\n");
  (void)controller.updateMaxTempHDD(true);
  bool listed = false;
  for (const Text& device : controller.m_hddDevices) {
    expect(device.size() == 8 && device.starts_with("/dev/sd"));
    listed |= device == "/dev/sda";
  }
  expect(controller.m_currentTemp == (listed ? 40 : 0));
}

void smart_table(const Appliance& appliance, FanController& controller, const Text& text) {
  appliance.write("/smart", text);
  appliance.disk("sda", "smart_file=smart\n");
  appliance.write("/proc/partitions", "8 0 1 sda\n");
  (void)controller.updateMaxTempHDD(false);
  const int temperature = controller.m_currentTemp;
  expect(temperature >= 0 && temperature <= 255);
  expect(temperature == 0 || text.find('\xC2') != Text::npos);
}

void attribute(const Appliance& appliance, FanController& controller, const Text& text) {
  appliance.write("/sys/temp", text);
  controller.m_tempSensorPath = "/sys/temp";
  expect(controller.updateSysTemp() == (text.empty() ? -1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  constexpr void (*kReaders[])(const Appliance&, FanController&, const Text&) = {
      config_file, command_table, partition_list, smart_table, attribute};
  static const Appliance appliance;
  static const bool silent = std::freopen("/dev/null", "w", stdout) != nullptr;  // the trace
  if (size == 0 || !silent) return 0;
  FanController controller("/etc/fan_controller");
  controller.m_curCmd = std::make_unique<CurCmd>("/sys/pwm1");
  controller.m_dumpInfoFile = "/var/run/status";
  controller.m_useHysteresis = (data[0] & 0x80) != 0;
  const Text text(reinterpret_cast<const char*>(data) + 1, size - 1);
  kReaders[(data[0] & 0x7f) % std::size(kReaders)](appliance, controller, text);
  const bool shown =
      appliance.read("/var/run/status").c_str() == Text(controller.m_infoString->c_str());
  expect(controller.m_infoString->empty() || shown);
  appliance.remove("/journal");  // it would fill the memory
  return 0;
}
