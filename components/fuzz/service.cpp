// The service's readers.
#include <climits>
#include <iterator>
#include <utility>

#include "FanController.h"
#include "drivers.h"
#include "machine.h"
#include "readers.h"
#include "utils.h"

namespace {

using machine::expect;

constexpr char kSettings[] = "/etc/fan_controller/fan_controller.conf";
constexpr char kTable[] = "/etc/fan_controller/fan_cmd_tab.conf";

// The command is that of one of the two steps around the temperature.
void expect_command(const FanController& controller) {
  const auto& table = controller.m_valueMap;
  const auto above = table.lower_bound(controller.m_currentTemp);
  const int command = controller.m_curCmd->m_currentCmd;
  expect(table.empty() ? command == 0
                       : (above != table.end() && command == above->second) ||
                             (above != table.begin() && command == std::prev(above)->second));
}

template <typename Work>
void with_controller(const Input& input, Work work) {
  machine::run([&] {
    trace_into_null();
    FanController controller("/etc/fan_controller");
    controller.m_curCmd = std::make_unique<CurCmd>("/sys/pwm1");
    controller.m_dumpInfoFile = "/run/fan_status";
    controller.m_useHysteresis = input.option;
    work(controller);
    const std::string& status = *controller.m_infoString;
    expect(controller.m_dumpInfoFile != "/run/fan_status" || status.empty() ||
           machine::text_of("/run/fan_status") == status.c_str());
  });
}

// One cycle with the settings, the sensor and the alarm; the paths may lead anywhere.
void read_start(const Input& input) {
  machine::put(kSettings, input.piece(0));
  machine::put("/sys/class/hwmon/hwmon1/temp1_input", input.piece(1));
  machine::put("/run/fan_controller/fan/fan1_alarm", input.piece(2));
  machine::put("/run/fan_controller/fan/pwm1_enable", input.piece(3));
  with_controller(input, [&](FanController& controller) {
    controller.endlessWatcher(true);
    controller.getFanAlarm(nullptr, true);
    expect(!controller.m_tempSensorPath.ends_with(' ') && !controller.m_pidFile.ends_with(' '));
    const std::string record = machine::text_of(controller.m_fanCmdPath);
    const bool isFan = controller.m_fanDriverType != FAN_DRIVER_NONE;
    expect(!isFan || parse_int(record.c_str()) == controller.m_curCmd->m_currentCmd);
  });
}

void read_table(const Input& input) {
  machine::put(kTable, input.piece(0));
  with_controller(input, [](FanController& controller) {
    expect(controller.loadValuesTab());
    const int level = alert_level(controller.m_valueMap);
    for (const int temperature : {INT_MIN, 0, level, INT_MAX, 40, INT_MIN}) {
      controller.m_previousTemp = std::exchange(controller.m_currentTemp, temperature);
      expect(controller.processCmd());
      expect_command(controller);
    }
  });
}

// A disk whose letter is listed is there, as /dev/sda is what all links lead to.
void read_disks(const Input& input) {
  machine::put("/proc/partitions", input.piece(0));
  machine::disk = {input.piece(1), input.piece(2), ""};
  with_controller(input, [&](FanController& controller) {
    (void)controller.updateMaxTempHDD(input.option);
    bool isListed = false;
    for (const std::string& device : controller.m_hddDevices) {
      expect(device.size() == 8 && device.starts_with("/dev/sd"));
      isListed |= device == "/dev/sda";
    }
    const int temperature = controller.m_currentTemp;
    expect(temperature >= 0 && temperature <= 255);
    const bool mayHaveOne = isListed && input.piece(1).find('\xC2') != std::string::npos;
    expect(temperature == 0 || mayHaveOne);
  });
}

void read_sensor(const Input& input) {
  machine::put("/sys/temp", input.piece(0));
  with_controller(input, [&](FanController& controller) {
    controller.m_tempSensorPath = "/sys/temp";
    const bool isEmpty = input.piece(0).empty();
    expect(controller.updateSysTemp() == (isEmpty ? -1 : 0));
    if (!isEmpty) expect_command(controller);
  });
}

constexpr Reader kReaders[] = {
    {'C', read_start}, {'T', read_table}, {'D', read_disks}, {'S', read_sensor}};

}  // namespace

std::span<const Reader> service_readers() { return kReaders; }
