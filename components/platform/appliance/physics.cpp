// The enclosure in the simulated appliance: as time passes, its command file drives the fan, and
// the files of speed, alarm, sensor and disks follow its state.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
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

// Adds to a file, or replaces what it holds. Not emptied first: a file system on a disk takes long
// for files that are, as it sees to it that they are safe.
void writeFile(const std::string& path, int flags, const std::string& text) {
  const int file = openat(AT_FDCWD, path.c_str(), O_WRONLY | O_CLOEXEC | flags, kFileMode);
  if (file < 0) return;
  const ssize_t written = ::write(file, text.data(), text.size());
  if ((flags & O_APPEND) == 0 && written >= 0) (void)ftruncate64(file, written);
  close(file);
}

// The enclosure of this process, once its file was looked for.
struct Known {
  bool isKnown = false;
  std::unique_ptr<Enclosure> instance;
};
Known& known() {
  static Known one;
  return one;
}

// Null when the root has none.
Enclosure* enclosure() {
  auto& [isKnown, instance] = known();
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
  const double value = std::strtod(text.c_str(), nullptr);
  return std::isfinite(value) ? value : 0;
}

// "41.5,38,": a number or nothing in each place; false for anything else.
bool toNumbers(std::string_view text, std::vector<double>& numbers) {
  for (bool more = true; more;) {
    more = text.find(',') != std::string_view::npos;
    const std::string word(cut(text, ','));
    double number = std::nan("");
    if (!word.empty() && !toNumber(word, number)) return false;
    numbers.push_back(number);
  }
  return true;
}

// Sensor and disks so exactly that who rounds them down gets what was measured.
void recordState(Enclosure& box, double command) {
  char text[kValueMax * 4];
  int length = std::snprintf(text, sizeof text, "%.0f,%.3f,%.3f,%.9f,%.0f,%.1f,%.5f,%.4f",
                             box.seconds(), box.outside(), box.air(), box.sensor(), command,
                             box.speed(), box.flow(), box.fanPower());
  std::string line(text, static_cast<std::size_t>(std::max(length, 0)));
  const auto add = [&](double value) {
    length = std::snprintf(text, sizeof text, ",%.9f", value);
    line.append(text, static_cast<std::size_t>(std::max(length, 0)));
  };
  for (const double disk : box.disks()) add(disk);
  const Interval since = box.takeInterval();
  for (const double value : {since.speed, since.fanPower, since.sound, since.sensor}) add(value);
  for (const double disk : since.disks) add(disk);
  writeFile(pathOf("/enclosure.csv"), O_CREAT | O_APPEND, line + '\n');
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
  if (!text.empty()) writeFile(path, 0, fresh);
}

// A file that is not there, because the timeline removed it, is not made anew.
void show(const Enclosure& box, double command) {
  const EnclosureParameters& parameters = box.parameters();
  const auto put = [](const std::string& file, long long value) {
    if (!file.empty()) writeFile(pathOf(file), 0, std::to_string(value) + "\n");
  };
  put(parameters.speedFile, std::llround(box.speed()));
  constexpr double kFullPwm = 255;
  const double share = std::clamp(command / parameters.fullCommand, 0.0, 1.0);
  put(parameters.pwmFile, std::llround(kFullPwm * share));
  put(parameters.alarmFile, command > 0 && box.speed() <= 0 ? 1 : 0);
  const double steps = std::floor(box.sensor() * kThousand / parameters.sensorStep);
  put(parameters.sensorFile, std::llround(steps * parameters.sensorStep));
  for (std::size_t i = 0; i < box.disks().size(); ++i) {
    writeDisk(parameters.diskNames[i], box.disks()[i], box.load(i));
  }
}

// No signal comes in while it exists: a handler would find files half written, and may wait itself.
struct Undisturbed {
  Undisturbed() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
  }
  ~Undisturbed() { sigprocmask(SIG_SETMASK, &before, nullptr); }
  Undisturbed(const Undisturbed&) = delete;
  Undisturbed& operator=(const Undisturbed&) = delete;

  sigset_t before;
};

bool changeTemperatures(Enclosure& box, const std::string& text) {
  std::vector<double> celsius;
  if (!toNumbers(text, celsius)) return false;
  box.setTemperatures(celsius);
  return true;
}

bool changeLoad(Enclosure& box, const std::string& disk, const std::string& name) {
  constexpr std::string_view kLoads[] = {"idle", "seek", "standby"};  // as in Load
  const auto* const load = std::find(std::begin(kLoads), std::end(kLoads), name);
  if (load == std::end(kLoads)) return false;
  const auto& names = box.parameters().diskNames;
  bool found = false;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (disk != "all" && disk != names[i]) continue;
    box.setLoad(i, static_cast<Load>(load - std::begin(kLoads)));
    found = true;
  }
  return found;
}

}  // namespace

void liveUntil(double seconds) {
  Enclosure* const box = enclosure();
  if (box == nullptr || seconds <= box->seconds()) return;
  const Undisturbed undisturbed;
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
  if (action == "celsius") return changeTemperatures(*box, object);
  if (action == "load") return changeLoad(*box, object, text);
  if (action == "fan") {
    if (object != "blocked" && object != "free") return false;
    box->setBlocked(object == "blocked");
    return true;
  }
  double number = 0;
  if (!toNumber(object, number)) return false;
  if (action == "outside" && isOutside(number)) return box->setOutside(number), true;
  if (action == "dust" && number > 0 && number <= 1) return box->setDust(number), true;
  return false;
}

void forgetEnclosure() { known() = {}; }

}  // namespace appliance
