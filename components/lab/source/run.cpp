#include "run.h"

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "layout.h"
#include "program.h"
#include "stop.h"
#include "text.h"

const char* const kHappeningTexts[kHappenings] = {"above the alert level", "critical temperature",
                                                  "temperature normal again", "fan failed",
                                                  "restart of the fan tried"};

namespace {

constexpr double kDutyCommand = 255;  // full speed of a fan that takes a duty cycle
constexpr double kThousand = 1000;
constexpr std::size_t kDiskColumn = 8;  // of the record
constexpr char kUpdating[] = "updating m_currentCmd to val ";
constexpr char kMatch[] = "Match a fan driver";
constexpr std::chrono::milliseconds kPoll{2};
constexpr int kPollsOfProgress = 50;
constexpr std::chrono::seconds kPatience{20};  // of real time, without a minute that passes
// A service that measures each second for a week fills a journal of half a gibibyte.
constexpr Program::Limits kLimits = {.processorSeconds = 600, .fileSize = 1UL << 30};

// --- The appliance ---

struct Files {
  std::string folder, command, speed, alarm;
};

Files files_of(const Configuration& configuration, const Scenario& scenario) {
  const std::string& folder = configuration.driver;
  const bool isDuty = scenario.parameters.fullCommand == kDutyCommand;
  return {.folder = folder,
          .command = folder + (isDuty ? "/pwm1" : "/fan1_target"),
          .speed = folder + "/fan1_input",
          .alarm = configuration.alarm.empty() ? folder + "/fan1_alarm" : configuration.alarm};
}

void lay_out_disks(const Appliance& appliance, const Scenario& scenario) {
  std::string partitions = "major minor  #blocks  name\n\n";
  const auto& names = scenario.parameters.diskNames;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string& name = names[i];
    const int degrees = std::clamp(static_cast<int>(scenario.start[i]), 1, 255);
    partitions += text_of("   8 %zu 1953514584 %s\n", i * 16, name.c_str());
    appliance.disk(name, text_of("model=LAB\nserial=%s\ntemperature=%d\n", name.c_str(), degrees));
  }
  appliance.write("/proc/partitions", partitions);
}

void lay_out(const Appliance& appliance, const Configuration& configuration, bool hysteresis,
             const Scenario& scenario) {
  const Files files = files_of(configuration, scenario);
  const bool isDuty = scenario.parameters.fullCommand == kDutyCommand;
  appliance.fan(files.folder, !isDuty);
  if (isDuty) appliance.write(files.folder + "/pwm1_enable", "1\n");
  appliance.write(files.alarm, "0\n");
  // A driver that takes a speed shows the duty cycle that it needs for it.
  const std::string duty = isDuty ? "" : "\npwm_file=" + files.folder + "/pwm1";
  const std::string more = "command_file=" + files.command + duty + "\nspeed_file=" + files.speed +
                           "\nalarm_file=" + files.alarm + "\nsensor_file=" + configuration.sensor +
                           "\n";
  if (!configuration.sensor.empty()) {
    const long long value = std::llround(scenario.start.front() * kThousand);
    appliance.write(configuration.sensor, std::to_string(value) + "\n");
  }
  lay_out_disks(appliance, scenario);
  appliance.write("/enclosure", scenario.enclosure + more);
  appliance.write("/timeline", timeline_of(scenario));
  appliance.config(configuration.settingsWith(hysteresis), configuration.table);
}

// --- The service ---

// The second that the last line of the growing record tells.
long long second_reached(const std::string& file) {
  constexpr std::streamoff kTail = 600;  // more than the longest line
  std::ifstream record(file, std::ios::ate);
  if (!record) return 0;
  record.seekg(std::max<std::streamoff>(record.tellg() - kTail, 0));
  std::string tail(kTail, '\0');
  record.read(tail.data(), kTail);
  tail.resize(static_cast<std::size_t>(record.gcount()));
  tail.resize(tail.rfind('\n') == std::string::npos ? 0 : tail.rfind('\n'));
  return std::atoll(tail.c_str() + (tail.rfind('\n') + 1));
}

void wait_for_end(Program& program, const std::string& record, long long whole,
                  const std::function<void(double)>& progress) {
  using Clock = std::chrono::steady_clock;
  long long reached = 0;
  auto grown = Clock::now();
  int polls = 0;
  for (int status = 0;;) {
    if (::waitpid(program.daemon, &status, WNOHANG) == program.daemon) {
      program.daemon = 0;
      throw_when_stopped();
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
      throw LabError(WIFSIGNALED(status)
                         ? text_of("the service was ended by signal %d", WTERMSIG(status))
                         : text_of("the service ended with status %d", WEXITSTATUS(status)));
    }
    throw_when_stopped();
    std::this_thread::sleep_for(kPoll);
    if (++polls % kPollsOfProgress != 0) continue;
    const long long second = second_reached(record);
    if (second > reached) {
      reached = second;
      grown = Clock::now();
      progress(static_cast<double>(second) / static_cast<double>(whole));
    }
    if (Clock::now() - grown > kPatience) throw LabError("the service does not go on");
  }
}

// --- What it left ---

// What the service measures of a sensor or of the hottest disk.
int measured(double sensor, double hottest, const Configuration& configuration,
             const Scenario& scenario) {
  if (configuration.sensor.empty()) return static_cast<int>(std::max(hottest, 1.0));
  const double step = scenario.parameters.sensorStep;
  return static_cast<int>(std::floor(sensor * kThousand / step) * step / kThousand);
}

void take_minutes(const std::string& record, const Scenario& scenario, Run& run) {
  for (const std::string& line : lines_of(record)) {
    std::vector<double> values;
    for (const std::string& cell : split(line, ',')) values.push_back(std::atof(cell.c_str()));
    const auto second = static_cast<long long>(values[0]) - kWarmUp;
    const std::size_t disks = scenario.parameters.disks.size();
    const std::size_t means = kDiskColumn + disks, warmest = means + 4;
    if (second < 0 || values.size() < warmest + disks) continue;
    Minute minute;
    minute.second = second;
    double* const places[] = {&minute.outside, &minute.air,  &minute.sensor,  &minute.command,
                              &minute.speed,   &minute.flow, &minute.fanPower};
    for (std::size_t i = 0; i < std::size(places); ++i) *places[i] = values[i + 1];
    for (const std::size_t disk : scenario.disks) {
      minute.disks.push_back(values[kDiskColumn + disk]);
      minute.warmest.push_back(values[warmest + disk]);
    }
    double* const over[] = {&minute.meanSpeed, &minute.meanFanPower, &minute.sound,
                            &minute.warmestSensor};
    for (std::size_t i = 0; i < std::size(over); ++i) *over[i] = values[means + i];
    minute.measured = measured(minute.sensor, minute.hottest(), *run.configuration, scenario);
    minute.measuredMost = measured(minute.warmestSensor, *std::ranges::max_element(minute.warmest),
                                   *run.configuration, scenario);
    run.minutes.push_back(std::move(minute));
  }
}

struct Sign {
  const char* kind;
  const char* text;
  Happening what;
};
constexpr Sign kSigns[] = {
    {"syslog", "The temperature of the drive(s) is above normal values", Happening::kHigh},
    {"syslog", "The temperature of the drive(s) is critical", Happening::kCritical},
    {"syslog", "The temperature of the drive(s) is now normal", Happening::kNormal},
    {"syslog", "Creating /var/tmp/fan_failed_alert", Happening::kFanFailed},
    {"sleep", " 10", Happening::kRestart},
};

// What is still so when the counting begins counts as of then.
void take_happening(long long second, Happening what, Run& run) {
  auto& all = run.happenings;
  const bool isTemperature = what <= Happening::kNormal;
  if (second < 0) {
    if (isTemperature)
      std::erase_if(all, [](const auto& one) { return one.second <= Happening::kNormal; });
    if (isTemperature && what != Happening::kNormal) all.emplace_back(0, what);
    return;
  }
  const auto last = std::find_if(all.rbegin(), all.rend(), [&](const auto& one) {
    return (one.second <= Happening::kNormal) == isTemperature;
  });
  // A critical temperature is reported again and again.
  if (isTemperature && last != all.rend() && last->second == what) return;
  all.emplace_back(second, what);
}

void take_journal(const std::string& journal, const Scenario& scenario, Run& run) {
  run.commands = {{0, 0}};
  for (const std::string& line : lines_of(journal)) {
    const long long second = std::atoll(line.c_str()) - kWarmUp;
    if (second >= scenario.seconds) break;
    const std::size_t update = line.find(kUpdating);
    if (update != std::string::npos) {
      const int command = std::atoi(line.c_str() + update + sizeof kUpdating - 1);
      if (second < 0) run.commands.clear();
      run.commands.emplace_back(std::max(second, 0LL), command);
      continue;
    }
    for (const Sign& sign : kSigns) {
      if (line.find(sign.text) == std::string::npos) continue;
      if (line.find(std::string(" ") + sign.kind) == std::string::npos) continue;
      take_happening(second, sign.what, run);
    }
  }
}

}  // namespace

double Minute::hottest() const { return *std::ranges::max_element(disks); }
double Minute::coolest() const { return *std::ranges::min_element(disks); }

std::string Run::id() const {
  return std::string(isRival ? "rival" : "table") + (hysteresis ? "-hysteresis" : "-nearest");
}

Run run_service(const Configuration& configuration, bool hysteresis, const Scenario& scenario,
                const std::function<void(double)>& progress) {
  const Appliance appliance;
  ::setenv("APPLIANCE_EPOCH", "0", 1);
  lay_out(appliance, configuration, hysteresis, scenario);
  Program program(appliance, {.binary = FAN_CONTROLLER_BINARY,
                              .arguments = {"--config-dir=/etc/fan_controller"},
                              .limits = kLimits});
  if (program.daemon == 0) throw LabError("the service does not start");
  const std::string record = appliance.at("/enclosure.csv");
  wait_for_end(program, record, kWarmUp + scenario.seconds, progress);

  const std::string journal = appliance.read("/journal");
  if (journal.find(kMatch) == std::string::npos) {
    throw LabError(configuration.folder + ": the service finds no fan driver in " +
                   configuration.driver + "; has the sensor or the alarm another path?");
  }
  Run run;
  run.configuration = &configuration;
  run.hysteresis = hysteresis;
  take_minutes(appliance.read("/enclosure.csv"), scenario, run);
  take_journal(journal, scenario, run);
  if (run.minutes.size() < 2) throw LabError("the service has left no record of its day");
  return run;
}
