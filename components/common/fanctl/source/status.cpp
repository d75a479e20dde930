// fanctl status: what holds now.
#include "status.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "alerts.h"
#include "files.h"
#include "hwmon.h"
#include "link-plan.h"
#include "state.h"
#include "terminal.h"
#include "utils.h"

namespace {

// --- The service ---

// fanctl standby notes what it asked this very process for.
bool is_in_spindown(const ServiceProcess& service) {
  State noted = read_state(join({RUN_FOLDER, "/standby"}));
  const bool isThis = service.state == ServiceState::kRuns &&
                      noted["process"] == std::to_string(service.process) &&
                      noted["started"] == std::to_string(service.started);
  return isThis && (noted["mode"] == "spindown" || noted["mode"] == "entering");
}

// --- The fan ---

std::optional<FanMode> read_mode(const std::string& folder) {
  std::string path = join({folder, "/", FAN_MODE});
  // For a target speed the folder has the service's number, and the chip may have another one.
  if (is_filler(folder, FAN_MODE)) path = read_state(folder + LINK_RECORD)["mode_path"];
  const auto value = read_attribute(path);
  if (!value || value->empty()) return std::nullopt;
  return FanMode{*value, mode_name(read_attribute(folder + "/name").value_or(""), *value)};
}

void look_at_fan(Status& status) {
  const Settings& settings = status.configuration.settings;
  status.driver = find_driver(settings);
  if (status.driver.row == nullptr) return;
  const std::string& folder = settings.m_fanDriverSysfsDir;
  status.command = read_number(status.driver.commandPath);
  if (!is_filler(folder, "fan1_input")) status.speed = read_number(folder + "/fan1_input");
  status.mode = read_mode(folder);
}

// --- Temperature ---

void look_at_temperature(Status& status, const std::optional<DiskList>& disks) {
  const Configuration& configuration = status.configuration;
  status.temperature = read_sensor(configuration.settings);
  // To ask a disk that does not tell whether it sleeps may wake it, unless the service does so too.
  const bool isMeasured = status.runs() && !status.inSpindown && !status.temperature;
  status.disks = disks ? *disks : list_disk_states({.askSilent = isMeasured});
  if (!status.temperature) status.temperature = hottest_disk(status.disks);
  if (!status.temperature || !configuration.hasTable) return;
  // What was measured before is known to the service alone.
  const auto after = [&](int previous) {
    return select_command(configuration.table, status.temperature->celsius, previous,
                          configuration.settings.m_useHysteresis)
        .command;
  };
  status.wanted = {.rising = after(INT_MIN), .falling = after(INT_MAX)};
}

// --- Alerts and the status file ---

std::string_view words_of(std::string_view kind) {
  if (kind == "fan_failed") return "The fan has failed";
  return kind == "temperature_high" ? "The temperature is high" : "The temperature is critical";
}

std::vector<Alert> look_at_alerts() {
  std::vector<Alert> alerts;
  for (const AlertRow& row : ALERT_ROWS) {
    alerts.push_back({row.kind, words_of(row.kind), flag_since(row.flag), {}});
  }
  const GuardRecord guard = read_guard_record();
  alerts.push_back({"guard_acted", "The guard has acted and its reason still holds",
                    guard.stands ? std::optional(guard.since) : std::nullopt, guard.text});
  return alerts;
}

void look_at_status_file(Status& status) {
  struct stat file {};
  const std::string& path = status.configuration.settings.m_dumpInfoFile;
  if (path.empty() || ::lstat(path.c_str(), &file) != 0) return;
  status.statusFileIsPlain = S_ISREG(file.st_mode);
  if (status.statusFileIsPlain) status.statusFileWritten = file.st_mtime;
}

// --- Output ---

ExitStatus write_metrics_file(const std::string& path, const std::string& text) {
  if (is_special(path)) {
    (void)std::fprintf(stderr, "fanctl status: %s is no plain file: name another one\n",
                       path.c_str());
    return EXIT_ERRORS;
  }
  // The program that collects it is another user.
  (void)::umask(OTHERS_WRITE);
  if (replace_file(path, text)) return EXIT_FINE;
  (void)std::fprintf(stderr, "fanctl status: %s cannot be written: %s\n", path.c_str(),
                     std::strerror(errno));
  return EXIT_ERRORS;
}

}  // namespace

Status look_at_status(const Options& options, const std::optional<DiskList>& disks) {
  Status status;
  status.now = std::time(nullptr);
  status.configuration = read_configuration(options.configDir);
  status.service = look_at_service(status.configuration.settings.m_pidFile);
  if (const auto age = age_of(status.service)) {
    status.serviceSince = status.now - static_cast<std::time_t>(*age);
  }
  status.inSpindown = is_in_spindown(status.service);
  look_at_temperature(status, disks);
  look_at_fan(status);
  status.alerts = look_at_alerts();
  look_at_status_file(status);
  return status;
}

ExitStatus exit_status(const Status& status) {
  if (!status.runs()) return EXIT_ERRORS;
  const bool stands = std::ranges::any_of(
      status.alerts, [](const Alert& alert) { return alert.since.has_value(); });
  return stands ? EXIT_WARNINGS : EXIT_FINE;
}

long long age(const Status& status, std::time_t since) {
  return std::max<long long>(static_cast<long long>(status.now) - since, 0);
}

ExitStatus run_status(const Options& options, const StatusOptions& wanted) {
  if (wanted.watchSeconds > 0) return watch_status(options, wanted.watchSeconds);
  const Status status = look_at_status(options, std::nullopt);
  const std::string text = options.json        ? status_as_json(status)
                           : wanted.prometheus ? status_as_metrics(status)
                                               : status_as_text(status);
  if (wanted.outputFile.empty()) {
    (void)std::fputs(text.c_str(), stdout);
  } else if (const ExitStatus result = write_metrics_file(wanted.outputFile, text);
             result != EXIT_FINE) {
    return result;
  }
  return exit_status(status);
}
