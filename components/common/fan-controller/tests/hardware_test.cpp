// Fan driver discovery, SMART over the simulated SG_IO, the hottest disk, the status file.
#include <fcntl.h>

#include <csignal>
#include <cstdlib>
#include <utility>

#include "fixtures.h"
#include "smart.h"

using namespace std::string_literals;

const std::string kIdentityA = "Model: AB1000CD\tSerial Nb :       XY12345678901Z";
const std::string kDiskA = "model=AB 1000 CD\nserial=      XY12345678901Z\n";
const std::string kBlanks(20, ' ');
using File = std::pair<std::string, std::string>;

const std::string kPwm = FAN + "/pwm1", kTarget = FAN + "/fan1_target", kMode = kPwm + "_enable";
const std::string kOwnAlarm = FAN + "/fan1_alarm";

// What is found, and a part of the trace; the directory's own alarm in the end if nothing else is
// said. One file is other than the driver has it at first.
struct Discovery {
  FanDriverType type = FAN_DRIVER_I2C;
  File file = {kMode, "0\n"};
  std::string directory = FAN, configured = {}, command = kPwm, alarm = kOwnAlarm, trace = {};
};

TEST_CASE("discovery") {
  const FanDriverType GPIO = FAN_DRIVER_GPIO, NONE = FAN_DRIVER_NONE;
  const std::string i2c = "Match a fan driver I2C interface";
  const std::string gpio = "Match a fan driver GPIO interface", close = "Fan mode is close-loop\n";
  const std::string fanless =
      "Unable to find appropriate fan entries in sysfs - consider a fanless product";
  const std::string outcomes[] = {"4 " + fanless, "6 " + gpio, "6 " + i2c};
  const File extra = {FAN + "/extra", ""}, ownSilent = {kOwnAlarm, ""};
  const Discovery discoveries[] = {
      {.trace = "Fan mode is open-loop\n"},
      {.file = {kMode, "2\n"}, .command = kTarget, .trace = close},
      {.file = {kMode, "02\n"}, .trace = "Fan mode is open-loop\n"},
      {.file = {kMode, ""}, .trace = i2c + "\n"},
      {.type = GPIO, .file = {kMode, "2\n"}, .command = kTarget, .trace = gpio},
      {.type = NONE,
       .file = extra,
       .command = "",
       .alarm = "",
       .trace = "Sysfs entries in " + FAN + " does not match w"},
      {.type = NONE,
       .directory = kPwm,
       .command = "",
       .alarm = "",
       .trace = "config dir " + kPwm + "does not exist or"},
      // Even if it is silent now; the configured one if both are.
      {.file = ownSilent},
      {.file = ownSilent, .configured = "/sys/alarm", .alarm = "/sys/alarm"},
      {.type = GPIO, .file = ownSilent, .command = kTarget},
  };
  for (const Discovery& each : discoveries) {
    CAPTURE(each.trace);
    CAPTURE(each.file.first);
    Bench bench;
    bench.fan(FAN, each.type == GPIO);
    bench.write(each.file.first, each.file.second);
    bench.m_fanDriverSysfsDir = each.directory;
    bench.m_fanAlarmPath = each.configured;
    const std::string text = traced([&] { bench.detectProductConfig(); });
    CHECK(contains(text, " " + each.trace));
    const std::string prefix = "fan-ctrl.cpp:detectProductConfig ";
    CHECK(text.starts_with(prefix + "Get current entries in sysfs /sys/fan\n" + prefix +
                           "Keep sysfs entry: /sys/fan/") == (each.directory == FAN));
    CHECK(bench.m_fanDriverType == each.type);
    CHECK(bench.m_curCmd->m_driverPath == each.command);
    CHECK(bench.m_fanAlarmPath == each.alarm);
    CHECK(bench.journal({"syslog"}) == Lines{"syslog " + outcomes[each.type]});
    CHECK(text.ends_with(fanless + "\n") == (each.type == NONE));
  }
}

TEST_CASE("temperature and identity of one disk") {
  const auto disk = [](const std::string& description, int temperature, const std::string& identity,
                       const std::string& trace) {
    CAPTURE(description);
    const TestAppliance appliance;
    // Attribute 194 in a 31st entry, which is none.
    std::string beyond(512, '\0');
    beyond[2 + 30 * 12] = '\xc2';
    beyond[2 + 30 * 12 + 5] = 40;
    appliance.write("/beyond", beyond);
    appliance.disk("sda", description);
    const Handle sda(::open("/dev/sda", O_RDONLY));
    CHECK(traced([&] { CHECK(get_smart_attr_value(sda.number) == temperature); }) == trace);
    CHECK(get_identify_data(sda.number) == identity);
    traced([&] { CHECK(unable_smart_feature(sda.number) == (trace.empty() ? 1 : 0)); });
  };
  const std::string entry = "c22200404028000f00320000", other = "0922006464ff000000000000";
  const std::string silent = "Model: \tSerial Nb : " + kBlanks, nuls(40, '\0');
  const std::string ab = "model=A\nserial=B\n",
                    plain = "Model: A\tSerial Nb : B" + kBlanks.substr(1);
  disk(kDiskA + "slot29=" + entry, 40, kIdentityA, "");
  disk(ab + "temperature=255\n", 255, plain, "");
  disk("slot0=" + other + "\nslot3=c22200404029000000000000\nslot4=" + entry, 41, silent, "");
  disk("model_hex=ff00e9\nserial_hex=80\nslot0=" + other, 0,
       "Model: \xff\0\xe9"s + nuls.substr(3) + "\tSerial Nb : \x80" + nuls.substr(21), "");
  disk(ab + "smart_file=beyond\n", 0, plain, "");
  disk(ab + "temperature=40\nfails=ioctl", 0, silent, "IOCTL error\n");
  disk(ab + "temperature=40\nfails=reject", 0, silent, "");
}

TEST_CASE("which disks a partition list names") {
  const auto devices = [](const std::string& list) {
    Bench bench;
    bench.write("/proc/partitions", list);
    CHECK(bench.updateMaxTempHDD(false) == -1);
    return bench.m_hddDevices;
  };
  const std::string wide(252, ' ');
  CHECK(Bench().updateMaxTempHDD(false) == -1);  // there is no list
  CHECK(devices(
            "major minor  #blocks  name\n\n   8  0  976 sda\n   8  1  97 sda1\n  31 0 4 mtdblock0\n"
            "   8 16 976 sdb\n   8 17 97 sdb9\n   9 0 976 md0\n 8 0 9 sdc") ==
        Lines{"/dev/sda", "/dev/sdb", "/dev/sdc"});
  CHECK(devices(" 65 160 9 sdaa\n 65 161 9 sdaa1\n") == Lines{"/dev/sda", "/dev/sda"});
  CHECK(devices(" 8 0 9 sd\n") == Lines{"/dev/sd\n"});
  // The last bytes of the buffer, a name cut in two, a name and a digit in the second piece.
  CHECK(devices(wide + " sd") == Lines{"/dev/sd\0"s});
  CHECK(devices(wide + "  sdb1\n").empty());
  CHECK(devices(std::string(300, ' ') + "sdb\n") == Lines{"/dev/sdb"});
  CHECK(devices(wide + "sdb1\n 8 0 9 sdc\n") == Lines{"/dev/sdb", "/dev/sdc"});
}

TEST_CASE("disks are asked and traced in order; a NUL ends the status file") {
  Bench bench;
  bench.m_dumpInfoFile = bench.at(STATUS);
  bench.write("/proc/partitions", "sda\nsda1\nsdb\n");
  bench.disk("sda", "model_hex=4100\nserial=1\ntemperature=31\n");
  const std::string prefix = "fan-ctrl.cpp:updateMaxTempHDD ";
  CHECK(traced([&] { CHECK(bench.updateMaxTempHDD(true) == -1); })
            .starts_with(prefix + "hdd /dev/sda is present \n" + prefix +
                         "Activate smart feature set on device /dev/sda\n" + prefix +
                         "/dev/sda returned temp=31degC\n" + prefix + "hdd /dev/sdb is present \n" +
                         prefix + "and cannot be opened\n" + prefix + "TMAX = 31\n"));
  const std::string with = " dir=-3 len=512 sense=32 timeout=20000 ok";
  CHECK(bench.journal({"sg_io"}) ==
        Lines{"sg_io sda 85060c00d800000000004f00c200b000 dir=-1 len=0 sense=32 timeout=20000 ok",
              "sg_io sda 85080e00d000010000004f00c200b000" + with,
              "sg_io sda 85080e000000010000004f00c200ec00" + with});
  const std::string text = bench.read(STATUS);
  CHECK(text.ends_with("\n/dev/sda_is_OK ; Temp HDD1 = 31degC  [Model: A"));
  CHECK(bench.m_infoString->starts_with(text));
  CHECK(bench.m_infoString->ends_with("]\n"));
}

static FanController* running = nullptr;

TEST_CASE("a thousand cycles leave no descriptor behind and switch SMART on once") {
  Bench bench;
  running = &bench;
  std::signal(SIGTERM, [](int) { *running->m_isSigTermDetected = true; });
  bench.fan(FAN, false);
  bench.config("period_in_sec=1\nfan_driver_sysfs_dir=" + FAN +
                   "\ntemp_sensor_sysfs_entry=" + SENSOR + "\ndump_info_to_file=" + STATUS + "\n",
               TABLE);
  bench.write("/proc/partitions", "sda\nsdb\n");
  bench.disk("sda", "temperature=47\n");
  // Half of them with the sensor, a quarter of them without the alarm.
  bench.write("/timeline",
              "500 write /sys/temp 36000\n750 remove /sys/fan/fan1_alarm\n1000 signal TERM\n");
  const auto descriptors = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  const auto before = descriptors();
  bench.endlessWatcher(false);
  std::signal(SIGTERM, SIG_DFL);
  CHECK(descriptors() == before);
  CHECK(bench.m_curCmd->m_currentCmd == 150);
  CHECK(bench.journal({"sg_io"}).size() == 1 + 2 * 500);
}
