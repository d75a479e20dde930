// fanctl link: folders of every kind of chip, their end, and what may go wrong in between.
#include <fcntl.h>
#include <sys/file.h>

#include "board.h"

namespace {

const std::string kFolder = "/run/fan_controller/fan", kUnfinished = kFolder + ".new";
const std::string kBootFile = CONFIG + "/fan_link.conf";
const std::string kClass = "/sys/class/hwmon/hwmon";
const std::string kAdtMode = "/sys/devices/i2c/0-002e/hwmon/hwmon0/pwm1_enable";
const std::string kMaxMode = "/sys/devices/i2c/1-001b/hwmon/hwmon4/pwm1_enable";

struct LinkBoard : Board {
  LinkBoard()
      : Board({
            {0, "adt7475", "i2c/0-002e",
             "pwm1=77 pwm1_enable=2 pwm2=255 pwm2_enable=3 fan1_alarm=0 fan2_input=900 "
             "fan2_alarm=1 temp1_input=41250"},
            {1, "f75375", "i2c/1-002d",
             "pwm1=1 pwm1_enable=2 pwm1_mode=1 fan1_input=8 fan1_target=9 fan1_min_alarm=0", true},
            {2, "emc2103", "i2c/1-002e",
             "fan1_target=2000 fan1_input=19 fan1_div=4 fan1_fault=0 pwm1_enable=0"},
            {3, "k10temp", "pci/0000:00:18.3", "temp1_input=38000"},
            {4, "max6650", "i2c/1-001b", "pwm1=0 pwm1_enable=3 fan1_alarm=0 fan1_fault=0"},
            {5, "max6650", "i2c/1-004b", "pwm1=0 pwm1_enable=3"},
            {6, "pwmfan", "platform/pwm fan", "pwm1=255"},
            {7, "ghost", "", "pwm1=1 pwm1_enable=2"},
            // Writing 1 leaves 15: this chip does not take the mode.
            {8, "stubborn", "i2c/2-0010", "pwm1=1 pwm1_enable=25"},
        }) {
    config("", TABLE);
  }
  // All entries but folders: "name:text" of a file, "name>attribute" of a link, where "hwmon/"
  // stands for the chip's own folder and nothing for the device's.
  std::string entries(const std::string& folder, int chip) const {
    const fs::path own = fs::canonical(at(kClass + std::to_string(chip)));
    Lines found;
    for (const auto& entry : fs::directory_iterator(at(folder))) {
      const std::string name = entry.path().filename();
      if (entry.is_directory()) continue;
      const auto target = fs::canonical(entry.path()).lexically_relative(own).native();
      const std::string inClass = target.starts_with("../") ? target.substr(6) : "hwmon/" + target;
      found.push_back(entry.is_symlink() ? name + ">" + inClass
                                         : name + ":" + read(folder + "/" + name));
    }
    std::ranges::sort(found);
    std::string all;
    for (const auto& each : found) all += each.substr(0, each.find('\n')) + " ";
    return all;
  }
  bool is_clean() const { return !exists(kFolder) && !exists(kUnfinished); }
};

}  // namespace

TEST_CASE("chips of every kind, and back") {
  const std::string none = "fan1_alarm:0 fan1_div:1 fan1_input:0 fan1_target:0 ";
  const struct {
    std::string chip;
    int number;
    std::string entries, modeFile, before, after, says;
  } cases[] = {
      {"adt7475:2", 0,
       "fan1_alarm>hwmon/fan2_alarm fan1_div:1 fan1_input>hwmon/fan2_input fan1_target:0 "
       "modalias>modalias name>hwmon/name pwm1>hwmon/pwm2 pwm1_enable>hwmon/pwm2_enable "
       "pwm1_mode:1 uevent>hwmon/uevent ",
       "/pwm2_enable", "3\n", "1\n",
       "adt7475-i2c-0-2e, channel 2, manual (was automatic, the chip's own kind)"},
      {"/sys/bus/i2c/devices/1-002d", 1,
       "fan1_alarm>fan1_min_alarm fan1_div:1 fan1_input>fan1_input fan1_target>fan1_target "
       "modalias>modalias name>name pwm1>pwm1 pwm1_enable>pwm1_enable pwm1_mode>pwm1_mode "
       "uevent>hwmon/uevent ",
       "/device/pwm1_enable", "2\n", "1\n", "f75375-i2c-1-2d, channel 1, manual (was automatic)"},
      {"emc2103", 2,
       "fan1_alarm>hwmon/fan1_fault fan1_div>hwmon/fan1_div fan1_input>hwmon/fan1_input "
       "fan1_target>hwmon/fan1_target modalias>modalias name>hwmon/name pwm1:0 pwm1_enable:2 "
       "pwm1_mode:1 uevent>hwmon/uevent ",
       "/pwm1_enable", "0\n", "3\n",
       "channel 1, target speed (was no control)\nCommands are revolutions per minute."},
      {"max6650-i2c-1-1b", 4,
       "fan1_alarm>hwmon/fan1_alarm fan1_div:1 fan1_input:0 fan1_target:0 modalias>modalias "
       "name>hwmon/name pwm1>hwmon/pwm1 pwm1_enable>hwmon/pwm1_enable pwm1_mode:1 "
       "uevent>hwmon/uevent ",
       "/pwm1_enable", "3\n", "1\n", "channel 1, manual (was off)"},
      {kClass + "6:1", 6,
       none + "modalias>modalias name>hwmon/name pwm1>hwmon/pwm1 pwm1_enable:1 pwm1_mode:1 "
              "uevent>hwmon/uevent ",
       "/pwm1_enable", "", "", "pwmfan-isa-0000, channel 1\nCommands are 0 (stopped) to 255"},
      {"ghost", 7,
       none + "modalias:none name>hwmon/name pwm1>hwmon/pwm1 pwm1_enable>hwmon/pwm1_enable "
              "pwm1_mode:1 uevent>hwmon/uevent ",
       "/pwm1_enable", "2\n", "1\n", "ghost-virtual-0, channel 1, manual (was automatic)"},
  };
  const LinkBoard board;
  for (const auto* folder : {"/run/fan_controller/fan", "/run/a b/fan"}) {
    for (const auto& each : cases) {
      CAPTURE(each.chip);
      const std::string mode = kClass + std::to_string(each.number) + each.modeFile;
      const Fanctl run(board, {"link", each.chip, "--to", folder + std::string("/")});
      CHECK(run.errors == "");
      if (run.status != 0) continue;
      CHECK(run.output.starts_with(folder + std::string(": ")));
      CHECK(contains(run.output, each.says));
      CHECK(run.output.ends_with("\nfan_driver_sysfs_dir=" + std::string(folder) + "\n"));
      CHECK(board.entries(folder, each.number) == each.entries);
      CHECK(board.read(mode) == each.after);
      CHECK(Fanctl(board, {"link", "--undo", "--to", folder}).status == 0);
      CHECK(board.read(mode) == each.before);
      CHECK_FALSE(board.exists(folder));
      CHECK_FALSE(board.exists(folder + std::string(".new")));
    }
    CHECK(Fanctl(board, {"link", "--undo", "--to", folder}).status == 0);
  }
}

TEST_CASE("what cannot be linked is named, and nothing is half done") {
  const LinkBoard board;
  const std::string second = "/sys/devices/i2c/1-004b/hwmon/hwmon5/pwm1";
  board.fan("/sys/fan", false);
  board.write("/run/file", "");
  board.write("/run/own.new/precious", "text");
  board.allow("/var/tmp", 01777);
  const auto allow = [&](const std::string& path, int mode) {
    return [&board, path, mode] { board.allow(path, mode); };
  };
  const auto fill = [&] {  // a driver that takes no value
    board.remove(second + "_enable");
    fs::create_symlink("/dev/full", board.at(second + "_enable"));
  };
  const struct {
    Lines arguments;
    std::string says;
    std::function<void()> plant = [] {};
  } cases[] = {
      {{"none"}, "there is no chip none. There are: adt7475-i2c-0-2e, f75375-i2c-1-2d"},
      {{"max6650"}, "more than one chip is called max6650: max6650-i2c-1-1b, max6650-i2c-1-4b"},
      {{"/sys/bus/i2c/devices/9-0000"}, "there is no chip /sys/bus/i2c/devices/9-0000"},
      {{"adt7475:3"}, "adt7475-i2c-0-2e has no channel 3. It has: 1, 2"},
      {{"adt7475:0"}, "has no channel 0"},
      {{"adt7475:x"}, "there is no chip adt7475:x"},
      {{"k10temp"}, "k10temp-pci-00c3 has neither a PWM nor a target speed"},
      {{"stubborn", "--at-boot"}, "pwm1_enable reads 15 after mode 1 was written"},
      {{"max6650-i2c-1-4b"}, "enable does not take mode 1: No space left on device", fill},
      {{"ghost"}, "enable does not take mode 1: Perm", allow(kClass + "7/pwm1_enable", 0444)},
      {{"max6650-i2c-1-4b"}, second + " cannot be written: Permission", allow(second, 0444)},
      {{"adt7475:2"}, "pwm2 cannot be read, so the service", allow(kClass + "0/pwm2", 0200)},
      {{"adt7475", "--to", "/run/no/such/fan"}, "/run/no/such cannot be used"},
      {{"adt7475", "--to", "/var/tmp/fan"}, "others can write to /var/tmp"},
      {{"adt7475", "--to", "/sys/fan"}, "/sys/fan was not made by fanctl link"},
      {{"--undo", "--to", "/sys/fan"}, "/sys/fan was not made by fanctl link"},
      {{"adt7475", "--to", "/run/file"}, "/run/file was not made by fanctl link"},
      {{"adt7475", "--to", "/run/own"}, "/run/own.new was not made by fanctl link"},
      {{"adt7475", "--at-boot", "-c", CONFIG + "/none"}, "/none/fan_link.conf"},
  };
  for (const auto& each : cases) {
    CAPTURE(each.says);
    each.plant();
    const Fanctl run(board, Lines{"link"} + each.arguments);
    CHECK(run.status == 2);
    CHECK(run.output.empty());
    CHECK(run.errors.starts_with("fanctl link: "));
    CHECK(contains(run.errors, each.says));
    CHECK(board.is_clean());
    CHECK(board.read(kAdtMode) == "2\n");
  }
  CHECK_FALSE(board.exists(kBootFile + ".new"));
  CHECK(board.read(kClass + "8/pwm1_enable") == "25\n");
  CHECK(board.read("/run/own.new/precious") == "text");
  CHECK(board.exists("/sys/fan/fan1_div"));
}

TEST_CASE("linked anew: the former chip gets its mode back, and the first mode is kept") {
  const LinkBoard board;
  const auto link = [&](const std::string& chip) { return Fanctl(board, {"link", chip}).status; };
  REQUIRE(link("max6650-i2c-1-1b") == 0);
  REQUIRE(link("max6650-i2c-1-1b") == 0);
  CHECK(board.read(kMaxMode) == "1\n");
  REQUIRE(link("adt7475:2") == 0);
  CHECK(board.read(kMaxMode) == "3\n");
  CHECK(board.read(kClass + "0/pwm2_enable") == "1\n");
  REQUIRE(link("adt7475:1") == 0);
  CHECK(board.read(kClass + "0/pwm2_enable") == "3\n");
  CHECK(link("stubborn") == 2);  // and all stays as it is
  CHECK(board.read(kAdtMode) == "1\n");
  CHECK(contains(board.entries(kFolder, 0), "pwm1>hwmon/pwm1 "));
  CHECK_FALSE(board.exists(kUnfinished));
  board.allow(kAdtMode, 0444);
  const Fanctl end(board, {"link", "--undo"});
  CHECK(end.status == 2);  // and another try can succeed
  CHECK(contains(end.errors, "pwm1_enable does not take its former mode 2: Permission denied"));
  board.allow(kAdtMode, 0644);
  // The driver was unloaded and loaded, and another chip has got its number.
  const std::string reloaded = "/sys/devices/i2c/0-002e/hwmon/hwmon9";
  fs::rename(board.at("/sys/devices/i2c/0-002e/hwmon/hwmon0"), board.at(reloaded));
  fs::remove(board.at(kClass + "0"));
  fs::create_symlink(board.at(reloaded), board.at(kClass + "9"));
  REQUIRE(link("adt7475:1") == 0);
  CHECK(board.read(reloaded + "/pwm1_enable") == "1\n");
  CHECK(Fanctl(board, {"link", "--undo"}).status == 0);
  CHECK(board.read(reloaded + "/pwm1_enable") == "2\n");
  REQUIRE(link("adt7475:1") == 0);
  fs::remove_all(board.at(reloaded));
  CHECK(
      contains(Fanctl(board, {"link", "--undo"}).output, "adt7475-i2c-0-2e is not there, so its"));
  CHECK(board.is_clean());
}

TEST_CASE("interrupted half-way") {
  // What was there then: folders with the files "chip" and "mode_before" of their records, modes.
  const struct {
    std::string when, unfinished = "", finished = "", adtMode = "2\n", maxMode = "3\n";
  } cases[] = {
      {.when = "the folder made", .unfinished = "folder"},
      {.when = "the record begun", .unfinished = "record"},
      {.when = "the links made", .unfinished = kAdtMode},
      {.when = "the mode set", .unfinished = kAdtMode, .adtMode = "1\n"},
      {.when = "the same chip anew, before the exchange",
       .unfinished = kAdtMode,
       .finished = kAdtMode,
       .adtMode = "1\n"},
      {.when = "another chip in place, the former one not given back",
       .unfinished = kMaxMode,
       .finished = kAdtMode,
       .adtMode = "1\n",
       .maxMode = "1\n"},
      {.when = "undone, but for the folder", .finished = kAdtMode},
  };
  for (const auto& each : cases) {
    for (const bool again : {true, false}) {
      CAPTURE(each.when);
      CAPTURE(again);
      const LinkBoard board;
      for (const auto& [folder, state] :
           {std::pair(kUnfinished, each.unfinished), std::pair(kFolder, each.finished)}) {
        if (state == "folder") fs::create_directories(board.at(folder));
        if (state == "record") board.write(folder + "/.link/record", "");
        if (!state.starts_with('/')) continue;
        board.write(folder + "/.link/record", "mode_path=" + state + "\nmode_before=" +
                                                  (state == kMaxMode ? "3" : "2") + "\n");
        board.write(folder + "/fan1_div", "1\n");
        fs::create_symlink("/nowhere", board.at(folder + "/pwm1"));
      }
      board.write(kAdtMode, each.adtMode);
      board.write(kMaxMode, each.maxMode);
      if (again) {
        const Fanctl run(board, {"link", "adt7475"});
        CHECK(run.errors.empty());
        REQUIRE(run.status == 0);
        CHECK(board.read(kAdtMode) == "1\n");
        CHECK(board.entries(kFolder, 0).starts_with("fan1_alarm>hwmon/fan1_alarm fan1_div:1 "));
        CHECK_FALSE(board.exists(kUnfinished));
      }
      CHECK(Fanctl(board, {"link", "--undo"}).status == 0);
      CHECK(board.read(kAdtMode) == "2\n");
      CHECK(board.read(kMaxMode) == "3\n");
      CHECK(board.is_clean());
    }
  }
}

TEST_CASE("a record leads to nothing but a mode") {
  const std::string command = "/sys/devices/i2c/0-002e/hwmon/hwmon0/pwm1";
  for (const std::string& path :
       std::vector<std::string>{command, command + '\0' + "_enable",
                                "/sys/devices/../devices/i2c/0-002e/hwmon/hwmon0/pwm1_enable"}) {
    CAPTURE(path);
    const LinkBoard board;
    const std::string before = board.read(command), mode = board.read(kAdtMode);
    board.write(kFolder + "/.link/record", "mode_path=" + path + "\nmode_before=77\n");
    (void)Fanctl(board, {"link", "--undo"});
    CHECK(board.read(command) == before);
    CHECK(board.read(kAdtMode) == mode);
  }
}

TEST_CASE("two runs at once") {
  const LinkBoard board;
  const std::string place = "/run/fan_controller";
  fs::create_directory(board.at(place));
  const Handle other(
      ::open(board.at(place + "/.fanctl.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  REQUIRE(::flock(other.number, LOCK_SH) == 0);
  const Fanctl run(board, {"link", "adt7475"});
  CHECK(run.status == 2);
  CHECK(contains(run.errors, "another fanctl link is at work in " + place));
  CHECK(board.journal({"sleep"}) == Lines(3, "sleep 1"));
  CHECK(board.read(kAdtMode) == "2\n");
}

TEST_CASE("at boot") {
  const LinkBoard board;
  const Fanctl missing(board, {"link"});
  CHECK(missing.status == 0);
  CHECK(missing.output == kBootFile + " is not there: nothing to link\n");

  const std::string folder = "/run/a b/fan";
  REQUIRE(Fanctl(board, {"link", "--at-boot", "adt7475:2", "--to", folder, "--sensor", "k10temp"})
              .status == 0);
  CHECK(board.read(kBootFile).ends_with("\nchip=adt7475-i2c-0-2e:2\nfolder=" + folder +
                                        "\nsensor=k10temp-pci-00c3:1\n"));
  REQUIRE(Fanctl(board, {"link", "--undo"}).status == 0);
  CHECK_FALSE(board.exists(folder));

  // The driver's module is loaded three seconds later.
  board.remove(kClass + "0/name");
  board.write("/timeline", "3 write " + kClass + "0/name adt7475\n");
  (void)board.journal({});
  REQUIRE(Fanctl(board, {"link"}).status == 0);
  CHECK(board.journal({"sleep"}) == Lines(3, "sleep 1"));
  CHECK(contains(board.entries(folder, 0), "pwm1>hwmon/pwm2 "));
  CHECK(board.read(folder + "/sensor/temp1_input") == "38000\n");
  REQUIRE(Fanctl(board, {"link", "--undo"}).status == 0);

  const struct {
    std::string text, says;
  } broken[] = {{"", "names no chip: write chip=NAME"},
                {"chip=\n", "names no chip"},
                {"chip=none\n", "there is no chip none. There are: adt7475"},
                {"chip=adt7475:7\n", "has no channel 7"},
                {"chip=adt7475\nfolder=fan\n", "whole path: fan"}};
  board.write(kBootFile, "chip=adt7475\nsensor=k10temp:2\n");
  const Fanctl without(board, {"link"});
  CHECK(without.status == 1);
  CHECK(contains(without.errors, "the sensor is left out: k10temp-pci-00c3 has no temperature 2"));
  board.write(kBootFile, "");
  CHECK(Fanctl(board, {"link", "--undo"}).status == 0);
  for (const auto& each : broken) {
    CAPTURE(each.says);
    board.write(kBootFile, each.text);
    const Fanctl run(board, {"link"});
    CHECK(run.status == 2);
    CHECK(contains(run.errors, each.says));
    CHECK(board.is_clean());
  }
}

TEST_CASE("the service on the linked folder") {
  const struct {
    std::string chip, command, mode;
  } cases[] = {{"adt7475:2", kClass + "0/pwm2", "open-loop"},
               {"emc2103", kClass + "2/fan1_target", "close-loop"}};
  for (const auto& each : cases) {
    CAPTURE(each.chip);
    const LinkBoard board;
    const Fanctl link(board, {"link", each.chip, "--sensor", "adt7475"});
    const std::size_t lines = link.output.find("fan_driver_sysfs_dir=");
    REQUIRE(lines != std::string::npos);
    board.config(link.output.substr(lines), TABLE);
    const Fanctl check(board, {"check"});
    CHECK(contains(check.output, "I2C, " + each.mode + ", in " + kFolder));
    CHECK(contains(check.output, "41 C now, from " + kFolder + "/sensor/temp1_input"));
    Service service(board, {"--oneshot", "--verbose", "-c", CONFIG});
    REQUIRE(service.wait_end() == 0);
    CHECK(contains(board.journal({"syslog"}), "syslog 6 Match a fan driver I2C interface"));
    CHECK(contains(board.read("/out"), "Fan mode is " + each.mode));
    CHECK(std::string(board.read(each.command).c_str()) == "150");
  }
}
