// Random days: the shipped binary on random appliances, beside a model of what it has to do. A day
// has one product and four runs of the service, each on the files that the one before has left.
// All of it follows from the day's seed.
//
//   FAN_SEED   of the first day; the next day's is one more. 1 by default
//   FAN_DAYS   how many
#include <fcntl.h>

#include <csignal>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>

#include "fixtures.h"
#include "model.h"

namespace fs = std::filesystem;

namespace {

// What may happen: $T is a temperature of the sensor, $d what a disk says, $P a list of partitions,
// $A an alarm, $X more than the library can read; one of the words between brackets.
const Lines kEvents = {
    "write /sys/temp $T",
    "write /sys/temp $T",
    "write /sys/temp $T",
    "write /sys/temp [warm -1500 54999]",
    "write /dev/sd[a b c] $d",
    "write /dev/sd[a b c] $d",
    "write /dev/sd[a b c] $d",
    "[remove write write] /proc/partitions $P",
    "[remove mode] /dev/sd[a b c] 200",
    "[remove mode] [/sys/temp $A] 200",
    "mode [/sys/temp $A /dev/sda /dev/sdb /dev/sdc] 644",
    "write $A [1 0]",
    "write $A [1 0 0 0 1x]",
    "write $A [1 0]",
    "write $A",
    "signal [USR1 USR2]",
    "signal [USR1 USR2 HUP PIPE ALRM]",
    "mode /run/corvane [333 755 755]",
    "write /run/corvane/resource-16 [$X $X status=none]",
    "remove [/run/corvane/resource-16 /var/run/status /sys/fan/fan1_alarm]",
    "mode [/sys/fan/pwm1 /sys/fan/fan1_target /var/run/status] [444 644 644]",
    "[write remove] /var/tmp/[high_temp crit_temp fan_failed]_alert",
};

struct Dice {
  explicit Dice(unsigned seed) : engine(seed) {}
  int upTo(int most) { return static_cast<int>(engine() % (static_cast<unsigned>(most) + 1)); }
  bool oneIn(int count) { return upTo(count - 1) == 0; }
  std::string one(const std::string& words) {
    std::istringstream stream(words);
    const Lines list(std::istream_iterator<std::string>(stream), {});
    return list[static_cast<std::size_t>(upTo(static_cast<int>(list.size()) - 1))];
  }
  // Mostly where something changes: about a step of the table or the critical temperature.
  int degrees(const Model& model) {
    if (model.table.empty() || oneIn(8)) return upTo(80);
    if (oneIn(6)) return model.critical - 1 + upTo(2);
    if (oneIn(4)) return model.table.rbegin()->first - 1 + upTo(13);
    const auto step =
        std::next(model.table.begin(), upTo(static_cast<int>(model.table.size()) - 1));
    return step->first - 1 + upTo(oneIn(2) ? 2 : 9);
  }
  std::string disk(const Model& model) {
    if (oneIn(10)) return "# disk\nfails=" + one("ioctl reject");
    const std::string name = one("A M Z"), number = one("1 2");
    return "# disk\nmodel=" + name + "\nserial=" + number +
           "\ntemperature=" + std::to_string(degrees(model));
  }
  std::string partitions() {
    std::string list = "major minor  #blocks  name\n";
    for (const std::string name : {"sda", "sda1", "sdb", "mtdblock0", "sdc", "sdc2"}) {
      if (!oneIn(4)) list += "\n   8 0 9 " + name;
    }
    return list;
  }
  World::Event event(const Model& model, long long at);
  Model product();
  void prepare(Model& model);

  std::mt19937 engine;
};

World::Event Dice::event(const Model& model, long long at) {
  std::string line = kEvents[static_cast<std::size_t>(upTo(static_cast<int>(kEvents.size()) - 1))];
  for (std::size_t open = 0; (open = line.find('[', open)) != std::string::npos;) {
    const std::size_t length = line.find(']') - open + 1;
    line.replace(open, length, one(line.substr(open + 1, length - 2)));
  }
  const int sensor = degrees(model) * 1000;
  const std::pair<std::string, std::string> texts[] = {
      {"$T", std::to_string(sensor + upTo(999))},
      {"$d", disk(model)},
      {"$P", partitions()},
      {"$A", model.alarm.empty() || oneIn(4) ? FAN + "/fan1_alarm" : model.alarm},
      {"$X", std::string(1100, 'x')}};
  for (const auto& [mark, text] : texts) {
    const std::size_t place = line.find(mark);
    if (place != std::string::npos) line.replace(place, mark.size(), text);
  }
  World::Event event = {at, "", "", ""};
  std::istringstream words(line);
  words >> event.action >> event.path >> std::ws;
  std::getline(words, event.text, '\0');
  return event;
}

Model Dice::product() {
  Model model;
  const bool gpio = oneIn(3);
  std::istringstream names(
      "fan1_alarm fan1_input fan1_target modalias name pwm1 pwm1_mode uevent " +
      std::string(gpio ? "fan1_max fan1_min" : "fan1_div"));
  for (std::string name; names >> name;) model.files[FAN + "/" + name] = "0\n";
  model.files[FAN + "/pwm1_enable"] = one("2 2 1 02") + "\n";
  if (!oneIn(5)) model.directory = FAN;
  if (oneIn(3)) model.alarm = "/sys/alarm";
  if (oneIn(2)) model.sensor = SENSOR;
  if (!oneIn(8)) model.status = STATUS;
  for (int step = 25 + upTo(10), rest = upTo(6); rest > 0; --rest, step += 1 + upTo(9)) {
    const int command = upTo(5) * 50;
    model.table[step] = command - upTo(1);
  }
  model.hysteresis = oneIn(2);
  model.critical = 40 + upTo(30);
  model.files[World::kLibrary] = "";
  model.files["/sys/alarm"] = "0\n";
  model.files[SENSOR] = "36000\n";
  model.files["/proc/partitions"] = partitions() + "\n";
  for (const std::string name : {"a", "b", "c"}) model.files["/dev/sd" + name] = disk(model) + "\n";
  model.watched = {FAN + "/pwm1",  FAN + "/fan1_target", STATUS,          World::kResource,
                   World::kFailed, World::kHigh,         World::kCritical};
  model.epoch = 1'767'776'703;  // 7 January 2026, 09:05:03
  return model;
}

// The next run of a product: what has changed before, its configuration, what happens.
void Dice::prepare(Model& model) {
  for (int rest = upTo(3); rest > 0; --rest) {
    const World::Event change = event(model, 0);
    if (change.action != "signal") (void)model.happen(change);
  }
  model.once = oneIn(8);
  model.pidFile = oneIn(6) ? "/var/run/other.pid" : PID_FILE;
  if (oneIn(6)) model.files[PID_FILE] = "", model.modes[PID_FILE] = oneIn(2) ? 4 : 6;
  model.period = model.directory.empty() ? 1 + upTo(2) : std::stoi(one("2 3 9 30"));
  const auto text = [](int value) { return std::to_string(value); };
  const std::string settings =
      "#\nfan_driver_sysfs_dir=" + model.directory + "\nfan_driver_sysfs_alarm=" + model.alarm +
      "\ntemp_sensor_sysfs_entry=" + model.sensor + "\ndump_info_to_file=" + model.status +
      "\npid_file=" + model.pidFile + "\nperiod_in_sec=" + text(model.period) +
      "\nhdd_critical_temperature=" + text(model.critical) +
      "\nuse_hysteresis=" + (model.hysteresis ? "yes" : "no");
  std::string table = "#";
  for (const auto& [step, command] : model.table) table += "\n" + text(step) + "=" + text(command);
  for (const auto& [name, content] :
       {std::pair("controller", settings), std::pair("cmd_tab", table)}) {
    const std::string path = CONFIG + "/fan_" + name + ".conf";
    model.files[path] = content + "\n";
    if (!oneIn(30)) continue;
    model.remove(path);
    model.events.push_back({upTo(700), "write", path, content});
  }
  const int late = model.events.empty() ? 0 : upTo(1000);
  const int cycles = 3 + upTo(40), seconds = late + cycles * model.period + upTo(5);
  for (int n = upTo(2 * cycles); n > 0; --n) model.events.push_back(event(model, upTo(seconds)));
  model.events.push_back({seconds, "signal", one("TERM TERM TERM INT"), ""});
  std::ranges::stable_sort(model.events, {}, &World::Event::at);
}

// On one line, as the journal and the timeline have it.
std::string folded(const std::string& text) {
  return std::regex_replace(std::regex_replace(text, std::regex("\n"), "\\n"), std::regex("\t"),
                            "\\x09");
}

Lines timeline(const Model& model) {
  Lines lines;
  for (const auto& [at, action, path, text] : model.events) {
    lines.push_back(std::to_string(at) + " " + action + " " + path + " " + folded(text));
  }
  return lines;
}

// A file as it is in the end.
std::string left(const std::string& path, bool isThere, const std::string& text) {
  return isThere ? "left " + path + " " + folded(text) : "gone " + path;
}

// What has to come of a run; the model is at its end then.
Lines expected(Model& model) {
  int status = 0;
  try {
    model.run();
  } catch (const World::Killed&) {
    status = SIGINT;
  }
  Lines lines;
  for (const std::string& line : model.journal) lines.push_back(folded(line));
  lines.push_back("ended " + std::to_string(status));
  for (const std::string& path : model.watched) {
    const auto file = model.files.find(path);
    const bool isThere = file != model.files.end();
    lines.push_back(left(path, isThere, isThere ? file->second : ""));
  }
  return lines + Lines{left(PID_FILE, model.files.contains(PID_FILE), "")};
}

// What comes of the shipped binary's run, as far as the model knows of it. Its traces go into the
// journal as well.
Lines observed(const Model& start) {
  const TestAppliance appliance;
  std::string events, watched;
  for (const std::string& line : timeline(start)) events += line + "\n";
  for (const std::string& path : start.watched) watched += path + "\n";
  appliance.write("/timeline", events);
  appliance.write("/watched", watched);
  for (const auto& folder : {World::kLibrary, CONFIG}) fs::create_directory(appliance.at(folder));
  for (const auto& [path, text] : start.files) {
    if (path != World::kLibrary) appliance.write(path, text);
  }
  for (const auto& [path, mode] : start.modes) {
    fs::permissions(appliance.at(path), static_cast<fs::perms>(mode << 6));
  }
  ::setenv("APPLIANCE_EPOCH", std::to_string(start.epoch).c_str(), 1);
  ::setenv("CORVANE_DIR", World::kLibrary.c_str(), 1);
  const Handle journal(
      ::open(appliance.at("/journal").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  Service service(appliance, Lines{"--verbose", "-c", CONFIG} + Lines(start.once ? 1 : 0, "-o"),
                  journal.number);
  const int status = service.wait_end();
  static const std::regex known(
      "\\d+ (?:sleep \\d+|select \\d+|holds .*|lacks .*|sg_io \\w+|syslog 6 Send new value .*)"
      "|Send fan status \\w+ to corvane|4 : m_last\\w+ \\d");
  const std::string text = appliance.read("/journal");
  Lines lines;
  for (std::sregex_iterator line(text.begin(), text.end(), known), end; line != end; ++line) {
    lines.push_back(line->str());
  }
  lines.push_back("ended " + std::to_string(status));
  for (const std::string& path : start.watched) {
    lines.push_back(left(path, appliance.exists(path), appliance.read(path).c_str()));
  }
  fs::permissions(appliance.at(World::kLibrary), fs::perms::owner_all);
  return lines + Lines{left(PID_FILE, appliance.exists(PID_FILE), "")};
}

// Some of the lines, for a person.
std::string shown(const Lines& lines, std::ptrdiff_t from, std::ptrdiff_t end) {
  std::string text;
  for (std::ptrdiff_t n = std::max<std::ptrdiff_t>(from, 0); n < end && n < std::ssize(lines);
       ++n) {
    text += "  " + lines[static_cast<std::size_t>(n)].substr(0, 400) + "\n";
  }
  return text;
}

unsigned asked(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

// As many as take some seconds: a sanitizer slows the service down, an emulator even more.
unsigned usualDays() {
#ifdef __SANITIZE_ADDRESS__
  return 6;
#else
  const char* const emulator = std::getenv("APPLIANCE_EMULATOR");
  return emulator == nullptr || *emulator == '\0' ? 40 : 5;
#endif
}

}  // namespace

TEST_CASE("random days") {
  // The first start of all looks whether the simulation answers, and takes the journal away.
  Service(TestAppliance(), {"--help"});
  const unsigned seed = asked("FAN_SEED", 1), days = asked("FAN_DAYS", usualDays());
  REQUIRE(days > 0);
  std::ptrdiff_t cycles = 0;
  for (unsigned day = seed; day - seed < days; ++day) {
    Dice dice(day);
    Model product = dice.product();
    for (int run = 1; run <= 4; ++run) {
      Model start = product;
      dice.prepare(start);
      Model model = start;
      const Lines wanted = expected(model), came = observed(start);
      const auto at = std::ranges::mismatch(wanted, came).in1 - wanted.begin();
      const auto cycle = std::count_if(wanted.begin(), wanted.begin() + at, [](const auto& line) {
        return line.starts_with("4 : m_lastFan");
      });
      cycles += cycle;
      if (wanted != came) {
        std::string files;
        for (const auto& [path, text] : start.files) {
          files += "  " + path + " " + folded(text) + "\n";
        }
        FAIL("day of seed " << day << ", run " << run << " of 4, cycle " << cycle << ": after\n"
                            << shown(wanted, at - 15, at) << "there should come\n"
                            << shown(wanted, at, at + 5) << "but there came\n"
                            << shown(came, at, at + 5) << "The run began with the files\n"
                            << files << "and this happened:\n"
                            << shown(timeline(start), 0, 1000) << "The same again: FAN_SEED=" << day
                            << " FAN_DAYS=1 "
                            << "build/PRESET/fan_controller_tests "
                            << "--source-file='*/days_test.cpp'");
      }
      product.files = model.files;
      product.modes = model.modes;
      product.epoch = model.epoch + model.now;
    }
  }
  std::cerr << "random days: " << days << " from seed " << seed << ", " << cycles
            << " cycles agree\n";
}
