// The enclosure in the simulated appliance: as time passes, its command file drives the fan, and
// the files of speed, alarm, sensor and disks follow its state.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "enclosure.h"
#include "simulation.h"

namespace appliance {
namespace {

constexpr std::size_t kFileMax = std::size_t{64} * 1024;
constexpr std::size_t kValueMax = 64;
constexpr mode_t kFileMode = 0644;
constexpr double kRecordPeriod = 60;  // s
constexpr double kThousand = 1000;

std::string pathOf(const std::string& file) { return root() + file; }

void writeFile(const std::string& path, int flags, const std::string& text) {
  const int file =
      openat(AT_FDCWD, path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, kFileMode);
  if (file < 0) return;
  [[maybe_unused]] const ssize_t written = ::write(file, text.data(), text.size());
  close(file);
}

// The enclosure of this process; null when the root has none.
Enclosure* enclosure() {
  static std::unique_ptr<Enclosure> instance;
  static bool isKnown = false;
  if (isKnown) return instance.get();
  isKnown = true;
  const std::string text = readFile(pathOf("/enclosure"), kFileMax);
  if (text.empty()) return nullptr;
  EnclosureParameters parameters;
  const std::string problem = readEnclosure(text, parameters);
  if (problem.empty()) {
    instance = std::make_unique<Enclosure>(std::move(parameters));
  } else {
    record("enclosure", "%s", problem.c_str());
  }
  return instance.get();
}

double command(const EnclosureParameters& parameters) {
  const std::string text = readFile(pathOf(parameters.commandFile), kValueMax);
  return std::strtod(text.c_str(), nullptr);
}

// "41.5,38,": a number or nothing in each place.
std::vector<double> toNumbers(std::string_view text) {
  std::vector<double> numbers;
  for (bool more = true; more;) {
    more = text.find(',') != std::string_view::npos;
    const std::string word(cut(text, ','));
    numbers.push_back(word.empty() ? std::nan("") : std::strtod(word.c_str(), nullptr));
  }
  return numbers;
}

// Sensor and disks so exactly that who rounds them down gets what was measured.
void recordState(const Enclosure& box, double command) {
  char text[kValueMax * 4];
  int length = std::snprintf(text, sizeof text, "%.0f,%.3f,%.3f,%.9f,%.0f,%.1f,%.5f,%.4f",
                             box.seconds(), box.outside(), box.air(), box.sensor(), command,
                             box.speed(), box.flow(), box.fanPower());
  std::string line(text, static_cast<std::size_t>(std::max(length, 0)));
  for (const double disk : box.disks()) {
    length = std::snprintf(text, sizeof text, ",%.9f", disk);
    line.append(text, static_cast<std::size_t>(std::max(length, 0)));
  }
  writeFile(pathOf("/enclosure.csv"), O_APPEND, line + '\n');
}

// Replaces the lines of the disk's file that its state decides; what else stands there stays.
void writeDisk(const std::string& name, double temperature, Load load) {
  const std::string path = pathOf("/dev/" + name);
  const std::string text = readFile(path, kFileMax);
  std::string fresh;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = cut(rest, '\n');
    if (line.starts_with("temperature=") || line.starts_with("power=")) continue;
    fresh.append(line).append("\n");
  }
  constexpr double kWarmest = 255;
  const int degrees = static_cast<int>(std::clamp(std::floor(temperature), 1.0, kWarmest));
  fresh += "temperature=" + std::to_string(degrees) + "\n";
  fresh += load == Load::kStandby ? "power=standby\n" : "power=active\n";
  if (!text.empty()) writeFile(path, O_TRUNC, fresh);
}

void show(const Enclosure& box, double command) {
  const EnclosureParameters& parameters = box.parameters();
  const auto put = [](const std::string& file, long long value) {
    if (!file.empty()) writeFile(pathOf(file), O_TRUNC, std::to_string(value) + "\n");
  };
  put(parameters.speedFile, std::llround(box.speed()));
  put(parameters.alarmFile, command > 0 && box.speed() <= 0 ? 1 : 0);
  const double steps = std::floor(box.sensor() * kThousand / parameters.sensorStep);
  put(parameters.sensorFile, std::llround(steps * parameters.sensorStep));
  for (std::size_t i = 0; i < box.disks().size(); ++i) {
    writeDisk(parameters.diskNames[i], box.disks()[i], box.load(i));
  }
}

}  // namespace

void liveUntil(double seconds) {
  Enclosure* const box = enclosure();
  if (box == nullptr || seconds <= box->seconds()) return;
  const double now = command(box->parameters());
  if (box->seconds() <= 0) recordState(*box, now);
  while (box->seconds() < seconds) {
    const double nextRecord = (std::floor(box->seconds() / kRecordPeriod) + 1) * kRecordPeriod;
    const double until = std::min(seconds, nextRecord);
    box->advanceTo(until, now);
    if (until >= nextRecord) recordState(*box, now);
  }
  show(*box, now);
}

bool changeEnclosure(std::string_view action, const std::string& object, const std::string& text) {
  Enclosure* const box = enclosure();
  if (box == nullptr) return false;
  const double number = std::strtod(object.c_str(), nullptr);
  if (action == "celsius") return box->setTemperatures(toNumbers(object)), true;
  if (action == "outside") return box->setOutside(number), true;
  if (action == "dust" && number > 0 && number <= 1) return box->setDust(number), true;
  if (action == "fan" && (object == "blocked" || object == "free")) {
    return box->setBlocked(object == "blocked"), true;
  }
  if (action != "load" || (text != "idle" && text != "seek" && text != "standby")) return false;
  const Load load = text == "idle" ? Load::kIdle : text == "seek" ? Load::kSeek : Load::kStandby;
  const auto& names = box->parameters().diskNames;
  bool found = false;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (object != "all" && object != names[i]) continue;
    box->setLoad(i, load);
    found = true;
  }
  return found;
}

}  // namespace appliance
