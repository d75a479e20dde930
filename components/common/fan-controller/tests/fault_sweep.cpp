// What the service comes to when one of its calls or allocations has failed, in the start-up or in
// one of the first three cycles, on some products. See scripts/faults.
#include <sys/wait.h>

#include <algorithm>
#include <map>

#include "sweep.h"

namespace {

namespace fs = std::filesystem;
using Event = std::pair<long, std::string>;

const std::string FAN = "/sys/fan", SENSOR = "/sys/temp", ALARM = "/sys/alarm";
const std::string CONFIG = "/etc/fan_controller", STATUS = "/var/run/status";
const std::string SETTINGS = CONFIG + "/fan_controller.conf", TABLE = CONFIG + "/fan_cmd_tab.conf";
const std::string HIGH = "/var/tmp/high_temp_alert", CRITICAL = "/var/tmp/crit_temp_alert";
const std::string RECOVERED = "FanRaisedFromDead";
const std::string OLD = "old";  // the status file, until it is written again after kHot
const std::string FAILED = "/var/tmp/fan_failed_alert";
// Changes of temperature that have to be followed, after one as soon as no call fails any more.
// That one may take as long as the service waits at most, and a cycle.
constexpr long kDelay = 300 + 100;
constexpr long kHot = 1400, kCool = 1700, kStop = 2000;

struct Scenario {
  bool fan = true, gpio = false, closeLoop = false, sensor = true, alarm = false;
  bool critical = false;  // hot is critical, not just high
  bool flagged = false;   // high at the start, as an earlier run has left it
  long start = 0;         // second of the first cycle
  std::vector<Event> events = {};
  void (*layOut)(const Appliance&) = [](const Appliance&) {};

  // The second up to which calls fail: three cycles, and the fan's end and recovery.
  long until() const { return start + (alarm ? 480 : 300); }
  long calm() const { return until() + 50; }
};

const std::map<std::string, Scenario> SCENARIOS = {
    {"sensor", {.closeLoop = true}},
    {"disks", {.gpio = true, .sensor = false, .flagged = true}},
    // The fan is blocked, fails and works again. The library has the resource late. The driver's
    // own alarm tells something else in the end.
    {"alarm",
     {.alarm = true,
      .events = {{20, "write " + ALARM + " 1"},
                 {35, "remove /corvane/resource-16"},
                 {200, "write " + ALARM + " 0"},
                 {kHot + 20, "write " + ALARM + " 1"},
                 {kHot + 250, "write " + ALARM + " 0"},
                 {kCool + 120, "write " + FAN + "/fan1_alarm 1"}},
      .layOut =
          [](const Appliance& appliance) {
            fs::create_directory(appliance.at("/corvane"));
            fs::create_symlink("/nowhere", appliance.at("/corvane/resource-16"));
          }}},
    // At first neither of the two files can be opened, nor is the library there.
    {"late",
     {.start = 600,
      .events = {{100, "mode " + SETTINGS + " 644"},
                 {400, "mode " + TABLE + " 644"},
                 {680, "remove /corvane"}},
      .layOut =
          [](const Appliance& appliance) {
            appliance.write("/corvane", "");
            for (const auto& file : {SETTINGS, TABLE}) {
              fs::permissions(appliance.at(file), fs::perms::none);
            }
          }}},
    // Something else is in the flags' places.
    {"planted",
     {.critical = true,
      .layOut =
          [](const Appliance& appliance) {
            fs::create_symlink("/nowhere", appliance.at(HIGH));
            appliance.write(CRITICAL + "/inside", "");
          }}},
    {"fanless", {.fan = false, .sensor = false}},
};

void layOut(const Appliance& appliance, const Scenario& scenario) {
  appliance.fan(FAN, scenario.gpio);
  if (scenario.closeLoop) appliance.write(FAN + "/pwm1_enable", "2\n");
  if (scenario.flagged) appliance.write(HIGH, "");
  appliance.write(SENSOR, "36000\n");
  appliance.write(ALARM, "0\n");
  appliance.write("/proc/partitions", "   8 0 9 sda\n   8 1 9 sda1\n   8 16 9 sdx\n 8 32 9 sdb\n");
  for (const auto& [name, celsius] : std::map<std::string, std::string>{
           {"sda", "34"}, {"sdb", "31"}, {"sdc", "60"}, {"sdd", "42"}, {"sde", "70"}}) {
    appliance.disk(name, "model=" + name + "\ntemperature=" + celsius + "\n");
  }
  std::string settings = "period_in_sec=100\ndump_info_to_file=" + STATUS + "\n";
  if (scenario.fan) settings += "fan_driver_sysfs_dir=" + FAN + "\n";
  if (scenario.alarm) settings += "fan_driver_sysfs_alarm=" + ALARM + "\n";
  if (scenario.sensor) settings += "temp_sensor_sysfs_entry=" + SENSOR + "\n";
  appliance.config(settings, "30=100\n40=150\n50=200\n55=255\n");

  // The sensor's temperature, and the disk that is the only one from then on.
  const std::pair<const char*, const char*> hot = {"60000", "sdc"}, critical = {"70000", "sde"},
                                            mild = {"42000", "sdd"}, calm = {"31000", "sdb"},
                                            cool = {"51000", "sda"};
  std::vector<Event> events = scenario.events;
  const auto change = [&](long second, const auto& to) {
    events.emplace_back(second, "write " + SENSOR + " " + to.first);
    events.emplace_back(second, std::string("write /proc/partitions 8 0 9 ") + to.second);
  };
  change(scenario.start + 50, hot);
  change(scenario.start + 150, scenario.critical ? critical : mild);
  change(scenario.calm(), calm);
  events.emplace_back(kHot, "write " + STATUS + " " + OLD);
  change(kHot, scenario.critical ? critical : hot);
  change(kCool, cool);
  for (const long second : {kStop, kStop + 100}) events.emplace_back(second, "signal TERM");
  std::stable_sort(events.begin(), events.end(),
                   [](const Event& a, const Event& b) { return a.first < b.first; });
  std::string timeline;
  for (const auto& [second, text] : events) timeline += std::to_string(second) + " " + text + "\n";
  appliance.write("/timeline", timeline);
  scenario.layOut(appliance);
}

// A state in which the service measures: it follows, or the documentation says what is different.
struct State {
  std::string name;
  bool fan = true, sensor = true, closeLoop = false, alarm = false;
  bool ownAlarm = false;
  bool settings = true, table = true;
};

// Those that a fault may lead to.
std::vector<State> states(const Scenario& scenario, const Fault* fault) {
  const State follows = {.name = "follows",
                         .fan = scenario.fan,
                         .sensor = scenario.sensor,
                         .closeLoop = scenario.closeLoop,
                         .alarm = scenario.alarm};
  std::vector<State> all = {follows};
  const auto other = [&](bool is, const std::string& name) {
    all.resize(all.size() + (is ? 1 : 0), follows);
    if (is) all.back().name = name;
    return is;
  };
  if (fault == nullptr) return all;
  const bool isAllocation = fault->isAllocation(), isRead = fault->function == "read";
  const bool isOfMode = isAllocation || fault->about == FAN + "/pwm1_enable";
  const bool isOfFan =
      isAllocation || fault->function == "readdir64" || fault->about.starts_with(FAN);
  if (other(scenario.closeLoop && isOfMode, "open loop, as the mode was not read")) {
    all.back().closeLoop = false;
  }
  if (other(scenario.alarm && (isAllocation || fault->about == ALARM),
            "the driver's own alarm, as the configured one was not read")) {
    all.back().ownAlarm = true;
  }
  if (other(scenario.fan && isOfFan, "fanless")) all.back().fan = false;
  if (other(isRead && fault->about == SETTINGS, "settings not read: fanless, by the disks")) {
    all.back().fan = all.back().sensor = all.back().settings = false;
  }
  if (other(isRead && fault->about == TABLE, "table not read: as an empty one")) {
    all.back().table = false;
  }
  return all;
}

const std::string UPDATING = "syslog 4 updating m_currentCmd to val ";
const std::string SENT = "syslog 6 Send new value to fan ";

// Whether the library has the word of the fan's recovery before a second.
bool tellsRecovery(const Outcome& outcome, long before) {
  return std::any_of(outcome.log.begin(), outcome.log.end(), [&](const std::string& line) {
    return line.starts_with("set ") && line.ends_with(" " + RECOVERED) &&
           std::stol(line.substr(4)) < before;
  });
}

// The command in force before a second. It may have come early: without a disk it is the lowest.
std::string lastUpdate(const Outcome& outcome, long before) {
  std::string last;
  for (const auto& [second, entry] : outcome.journal) {
    if (second < before && entry.starts_with(UPDATING)) last = entry.substr(UPDATING.size());
  }
  return last;
}

bool isOld(const std::string& status) { return status.starts_with(OLD); }

// What speaks against a state; empty when all that belongs to it is there.
std::string problemOf(const State& state, const Scenario& scenario, const Outcome& outcome) {
  const Appliance& appliance = outcome.appliance;
  std::string problem;
  const auto need = [&](bool is, const std::string& what) {
    if (!is && problem.empty()) problem = what + " (" + state.name + ")";
  };
  const auto attribute = [&](const char* name) { return appliance.read(FAN + "/" + name); };
  const std::string command = !state.table ? "0" : state.sensor ? "200" : "100";
  const char* const target = scenario.gpio || state.closeLoop ? "fan1_target" : "pwm1";
  const bool isLost = outcome.fault != nullptr && outcome.fault->error == "LOST";
  const bool warned = outcome.has("syslog 4 Unable to find appropriate fan entries in sysfs");
  need(warned != state.fan || isLost, state.fan ? "no fan was found" : "a fan was found");
  if (state.fan) {
    need(attribute(target) == command + std::string(32 - command.size(), '\0'), "the last command");
    need(!state.table || outcome.has(SENT + command, kCool, kStop), "the log of the last command");
  } else {
    need(attribute("pwm1") == "0\n" && attribute("fan1_target") == "0\n", "untouched attributes");
    need(!outcome.has(SENT), "a log without a command sent");
  }

  const std::string& flag = scenario.critical ? CRITICAL : HIGH;
  const std::string word = appliance.read("/corvane/resource-16");
  if (state.table) {
    const std::string lastWord = !state.alarm || !state.fan ? "OK"
                                 : state.ownAlarm           ? "FanFailed"
                                                            : RECOVERED;
    need(lastUpdate(outcome, scenario.calm() + kDelay) == "100", "the command when it is calm");
    need(outcome.has(UPDATING + "255", kHot, kCool), "the highest command when it is hot");
    need(outcome.has(UPDATING + command, kCool, kStop), "the command when it is cool");
    need(outcome.has("syslog 3 Creating " + flag + " file", kHot, kCool),
         "the flag when it is hot");
    need(outcome.has("syslog 3 The temperature of the drive(s) is now normal.", kCool, kStop),
         "the normal alert");
    need(!appliance.exists(flag), "the end of the flag");
    need(word == "status=" + lastWord + "\n", "the word");
  } else {
    need(!outcome.has(UPDATING + "1") && !outcome.has(UPDATING + "2"), "no other command");
    need(appliance.exists(HIGH), "the flag at any temperature");
    need(scenario.alarm || word == (scenario.flagged ? "" : "status=TemperatureAlert\n"),
         "the word");
  }
  if (state.alarm && state.fan) {
    const long from = state.ownAlarm ? kCool : kHot;
    need(outcome.has("syslog 3 Creating " + FAILED + " file", from, from + 300), "a blocked fan");
    const bool failed = outcome.has("syslog 3 Creating " + FAILED + " file", 0, kHot);
    const bool isUntold = outcome.fault != nullptr && outcome.fault->about == RECOVERED;
    need(!failed || isUntold || tellsRecovery(outcome, kHot), "the word of the fan's recovery");
    need(appliance.exists(FAILED) == state.ownAlarm, "what becomes of the blocked fan");
  }

  const std::string is = state.table ? "OK" : "HOT";
  const std::string line = state.sensor ? "System Temp is " + is + " : 51degC\n"
                                        : "_is_" + is + " ; Temp HDD1 = 34degC  [Model: sda\t";
  const std::string status = appliance.read(STATUS);
  need(state.settings ? status.find(line) != std::string::npos : isOld(status), "the status file");
  need(!appliance.exists("/var/run/fan_controller.pid"), "the end of the pid file");
  return problem;
}

// Without memory neither the sensor nor the list of disks can be read: the last command stays, and
// the status file. The service still tries.
bool measuresNothing(const Scenario& scenario, const Outcome& outcome) {
  std::string last = "0\n";
  for (const auto& [second, entry] : outcome.journal) {
    if (entry.starts_with(SENT)) last = entry.substr(SENT.size());
  }
  const bool isTarget = scenario.gpio || scenario.closeLoop;
  const std::string held = outcome.appliance.read(FAN + (isTarget ? "/fan1_target" : "/pwm1"));
  const auto isLate = [](const std::string& line) {
    return line.starts_with("refused ") && std::stol(line.substr(8)) >= kCool;
  };
  return std::any_of(outcome.log.begin(), outcome.log.end(), isLate) &&
         isOld(outcome.appliance.read(STATUS)) && !outcome.has("syslog 4 updating", kHot) &&
         held.c_str() == last;
}

// How many connections to the management library stay open: the start-up's, if it had one.
int connections(const Outcome& outcome) {
  const std::string line = "getting corvane fan config";
  const bool isLost = outcome.fault != nullptr && outcome.fault->about == line;
  return isLost || outcome.has("syslog 6 " + line) ? 1 : 0;
}

std::string verdict(const Scenario& scenario, const Outcome& outcome) {
  const Fault* const fault = outcome.fault;
  const bool noMemory = fault != nullptr && fault->isAllocation();
  if (!outcome.status) {
    const bool may = fault != nullptr && (noMemory || fault->function == "fork" ||
                                          (fault->function == "opendir" && fault->about == CONFIG));
    return may && outcome.starter == 1 ? "no service, status 1" : "!it does not start";
  }
  const int status = WEXITSTATUS(*outcome.status);
  if (status == 1 && noMemory) {
    const bool wasThere = outcome.has("syslog 6 Fan Controller service has been started");
    const bool tornDown = outcome.has("syslog 6 The fan controller service has been stopped.");
    return wasThere == tornDown ? "ended with status 1" : "!not torn down";
  }
  if (status != 0) return "!it ended with status " + std::to_string(status);
  if (outcome.starter != 0) {
    return "!the command that starts it ended with status " + std::to_string(outcome.starter);
  }
  const bool failed = outcome.has("syslog 3 Creating " + FAILED + " file", 0, scenario.until());
  if (fault == nullptr && scenario.alarm && !(failed && tellsRecovery(outcome, scenario.until()))) {
    return "!the fan does not fail and recover while calls fail";
  }
  if (fault != nullptr && fault->kind == "from" && measuresNothing(scenario, outcome)) {
    return "cannot measure, the command stays";
  }
  std::string missing;
  for (const State& state : states(scenario, fault)) {
    const std::string problem = problemOf(state, scenario, outcome);
    if (problem.empty()) return state.name;
    missing += (missing.empty() ? "" : ", ") + problem;
  }
  return "!it does not follow; missing: " + missing;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Product> products;
  for (const auto& [name, scenario] : SCENARIOS) {
    const bool pipe = name == "sensor", closed = name == "fanless";
    Product product;
    product.name = name;
    product.arguments = {"--config-dir=" + CONFIG};
    if (pipe || closed) product.arguments.emplace_back("--verbose");
    product.output = pipe ? Output::kPipe : closed ? Output::kClosedPipe : Output::kFile;
    product.until = scenario.until();
    product.kept = "/corvane";
    product.mayKeep = connections;
    product.layOut = [&](const Appliance& appliance) { layOut(appliance, scenario); };
    product.verdict = [&](const Outcome& outcome) { return verdict(scenario, outcome); };
    products.push_back(std::move(product));
  }
  return sweepMain(argc, argv, FAN_CONTROLLER_BINARY, products);
}
