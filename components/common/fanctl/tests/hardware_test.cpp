// fanctl hardware on a board of three chips and three disks.
#include <nlohmann/json.hpp>

#include "board.h"

namespace {

struct FullBoard : Board {
  FullBoard()
      : Board({{0, "adt7475", "i2c/0-002e",
                "pwm1=77 pwm1_enable=2 pwm3=128 pwm3_enable=9 fan1_input=1205 fan2_input=900 "
                "temp1_input=41250 temp1_label=re\x7fmote temp10_input=-5500"},
               {10, "f75375", "platform/fan.656",
                "pwm1=100 pwm1_enable=3 fan1_target=900 fan2_target=2000", true},
               {2, "drivetemp", "scsi/2:0:1:3", "temp1_input=x"}}) {
    write("/proc/partitions", " 8 0 9 sda\n 8 16 9 sdb\n 8 32 9 sdc\n 8 33 9 sdc1\n 8 0 9 sdd\n");
    disk("sda", "temperature=38\nmodel=DISK A\nserial=  S1\n");
    disk("sdb", "temperature=50\nmodel=DISK B\npower=standby\n");
    disk("sdc", "model=DISK C\xff\nserial=S3\npower=idle\nsense=fixed\n");
    allow("/sys/class/hwmon/hwmon2/temp1_input", 0200);
  }
};

}  // namespace

TEST_CASE("text") {
  const FullBoard board;
  const Fanctl run(board, {"hardware"});
  CHECK(run.status == 0);
  CHECK(run.errors.empty());
  CHECK(board.journal({"woken"}).empty());
  CHECK(run.output ==
        R"(                                                       what the service can use
adt7475-i2c-0-2e  /sys/bus/i2c/devices/0-002e
  pwm1         77 of 255, automatic (2)                fanctl link adt7475
  pwm3         128 of 255, automatic, the chip's own kind (9) fanctl link adt7475:3
  fan1         1205 rpm
  fan2         900 rpm
  temp1        41.2 C  re?mote                         --sensor adt7475
  temp10       -5.5 C                                  --sensor adt7475:10
drivetemp-scsi-2-13  /sys/bus/scsi/devices/2:0:1:3
  temp1        cannot be read
f75375-isa-0290  /sys/bus/platform/devices/fan.656
  pwm1         100 of 255, target speed (3)            fanctl link f75375
  fan2_target  2000 rpm wanted                         fanctl link f75375:2
disks
  /dev/sda     38 C, DISKA  S1                         disk
  /dev/sdb     sleeping, was not woken                 disk
  /dev/sdc     no temperature, DISKC)"
        "\xff"
        R"(  S3              none: counts as 0 degrees
  /dev/sdd     cannot be opened: are you root?
)");
}

TEST_CASE("JSON") {
  const FullBoard board;
  const Fanctl run(board, {"hardware", "--json"});
  CHECK(run.status == 0);
  CHECK(board.journal({"woken"}).empty());
  const auto all = nlohmann::json::parse(run.output);
  CHECK(all["chips"].size() == 3);
  CHECK(all["chips"][0] == nlohmann::json::parse(R"(
    {"name": "adt7475", "id": "adt7475-i2c-0-2e", "folder": "/sys/class/hwmon/hwmon0",
     "path": "/sys/bus/i2c/devices/0-002e",
     "channels": [{"channel": 1, "attribute": "pwm1", "value": 77, "mode": 2,
                   "mode_name": "automatic", "link": "fanctl link adt7475"},
                  {"channel": 3, "attribute": "pwm3", "value": 128, "mode": 9,
                   "mode_name": "automatic, the chip's own kind", "link": "fanctl link adt7475:3"}],
     "fans": [{"number": 1, "rpm": 1205}, {"number": 2, "rpm": 900}],
     "temperatures": [{"number": 1, "label": "re?mote", "celsius": 41.25,
                       "link": "--sensor adt7475",
                       "path": "/sys/class/hwmon/hwmon0/temp1_input"},
                      {"number": 10, "celsius": -5.5, "link": "--sensor adt7475:10",
                       "path": "/sys/class/hwmon/hwmon0/temp10_input"}]})"));
  CHECK(all["disks"] == nlohmann::json::parse(R"([
    {"path": "/dev/sda", "state": "awake", "celsius": 38, "model": "DISKA", "serial": "S1"},
    {"path": "/dev/sdb", "state": "sleeping"},
    {"path": "/dev/sdc", "state": "awake", "model": "DISKC\ufffd", "serial": "S3"},
    {"path": "/dev/sdd", "state": "closed"}])"));
}

TEST_CASE("nothing to list") {
  const Board board;
  board.remove("/proc/partitions");
  const Fanctl run(board, {"hardware"});
  CHECK(run.status == 1);
  CHECK(contains(run.errors, "no hwmon chip: load the module"));
  CHECK(contains(run.errors, "/proc/partitions cannot be read"));
}
