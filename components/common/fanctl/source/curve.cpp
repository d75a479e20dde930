// fanctl curve: the command over the temperature.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "curve-plot.h"
#include "files.h"
#include "measurement.h"
#include "terminal.h"
#include "utils.h"

namespace {

std::string unit_of(const Driver& driver) {
  if (driver.row == nullptr) return "command";
  return driver.commandPath.ends_with(FAN_TARGET) ? "fan1_target (rpm)" : "pwm1 (0 to 255)";
}

ExitStatus complain(std::initializer_list<TextPiece> text) {
  (void)std::fputs((join(text) + "\n").c_str(), stderr);
  return EXIT_ERRORS;
}

ExitStatus complain_about(const std::string& path) {
  return complain({"fanctl: ", path, ": ", std::strerror(errno)});
}

std::string as_json(const Plot& plot) {
  nlohmann::ordered_json json;
  json["rule"] = plot.hysteresis ? "hysteresis" : "nearest";
  json["alert_level"] = alert_level(plot.table);
  json["critical"] = plot.critical;
  if (plot.now) json["temperature"] = plot.now->celsius;
  for (const CurvePoint& point : plot.points) {
    nlohmann::ordered_json entry = {{"celsius", point.celsius}};
    if (plot.hysteresis) {
      entry["rising"] = point.rising;
      entry["falling"] = point.falling;
    } else {
      entry["command"] = point.rising;
    }
    json["points"].push_back(std::move(entry));
  }
  constexpr int kIndent = 2;
  return json.dump(kIndent) + "\n";
}

}  // namespace

ExitStatus run_curve(const Options& options, const CurveOptions& curve) {
  const Configuration configuration = read_configuration(options.configDir);
  if (!configuration.hasTable) {
    const Descriptor missing(::open(configuration.tablePath.c_str(), O_RDONLY | O_CLOEXEC));
    return complain_about(configuration.tablePath);
  }
  if (configuration.table.empty()) {
    return complain({"fanctl: ", configuration.tablePath,
                     ": there is no step in this table; with it the service stops the fan. "
                     "Write a line such as 40=120 for each step."});
  }
  const Settings& settings = configuration.settings;
  Plot plot = plot_curve(configuration.table, settings, read_temperature(settings));
  plot.unit = unit_of(find_driver(settings));
  ExitStatus status = EXIT_FINE;
  if (!configuration.hasSettings) {
    (void)complain({"fanctl: ", configuration.settingsPath,
                    " cannot be read: drawn with the rule and the critical temperature that hold "
                    "without it"});
    status = EXIT_WARNINGS;
  }
  const std::string& picture = curve.svgFile;
  if (is_special(picture)) return complain({"fanctl: ", picture, " is no plain file: left alone"});
  if (!picture.empty() && !replace_file(picture, draw_svg(plot))) return complain_about(picture);
  if (options.json) {
    (void)std::fputs(as_json(plot).c_str(), stdout);
  } else if (picture.empty()) {
    (void)std::fputs(draw_terminal(plot, terminal_columns(), speaks_utf8()).c_str(), stdout);
  }
  return status;
}
