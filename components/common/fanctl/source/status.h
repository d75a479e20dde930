// What fanctl status shows: everything is looked at once, then written in one of three forms.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "configuration.h"
#include "disk-state.h"
#include "measurement.h"
#include "service-process.h"

/// One kind of alert.
struct Alert {
  std::string_view kind;
  std::string_view words;            ///< what holds, to be continued by how long
  std::optional<std::time_t> since;  ///< nothing: it does not stand
  std::string more;                  ///< a sentence on it; may be empty
};

/// What the table gives; by the nearest-step rule both are the same.
struct TableCommand {
  int rising;  ///< or steady
  int falling;
};

/// The mode that the chip's driver shows.
struct FanMode {
  std::string value;
  std::string name;
};

struct Status {
  std::time_t now = 0;
  Configuration configuration;
  ServiceProcess service;
  std::optional<std::time_t> serviceSince;
  bool inSpindown = false;  ///< the service runs and does not measure, so that disks can sleep
  DiskList disks;
  std::optional<Reading> temperature;
  std::optional<TableCommand> wanted;  ///< nothing without a temperature or a table
  Driver driver;
  std::optional<int> command;  ///< in force
  std::optional<int> speed;    ///< revolutions per minute
  std::optional<FanMode> mode;
  std::vector<Alert> alerts;  ///< all kinds
  bool statusFileIsPlain = true;
  std::optional<std::time_t> statusFileWritten;  ///< nothing: there is none

  bool runs() const { return service.state == ServiceState::kRuns; }
  /// Whether the command in force is another one than the table gives; both must be known.
  bool differs() const {
    return command && wanted && *command != wanted->rising && *command != wanted->falling;
  }
};

/// Wakes no disk, writes nothing, sends no signal. disks: as they were found just before; nothing:
/// they are asked now.
Status look_at_status(const Options& options, const std::optional<DiskList>& disks);

ExitStatus exit_status(const Status& status);

/// Seconds between a time and the look at it; 0 for a time that lies ahead.
long long age(const Status& status, std::time_t since);

/// For people: sentences, then rows. With colours on a terminal.
std::string status_as_text(const Status& status);

std::string status_as_json(const Status& status);

/// In the text exposition format of Prometheus.
std::string status_as_metrics(const Status& status);

/// Shows it on the terminal again and again until a key or a signal ends that.
ExitStatus watch_status(const Options& options, int seconds);
