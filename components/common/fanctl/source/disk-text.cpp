#include "disk-text.h"

#include <nlohmann/json.hpp>

#include "terminal.h"
#include "utils.h"

namespace {

const char* state_name(const DiskState& disk) {
  if (!disk.opened) return "closed";
  if (disk.power == PowerMode::kStandby) return "sleeping";
  return disk.answers ? "awake" : "silent";
}

}  // namespace

std::string describe_disk(const DiskState& disk) {
  if (!disk.opened) return "cannot be opened: are you root?";
  if (disk.power == PowerMode::kStandby) return "sleeping, was not woken";
  if (!disk.answers && !disk.asked) return "does not tell whether it sleeps, was not asked";
  if (!disk.answers) return "takes no ATA command";
  const std::string who = join({printable(disk.model), "  ", printable(disk.serial)});
  if (disk.temperature == 0) return "no temperature, " + who;
  return join({disk.temperature, " C, ", who});
}

nlohmann::ordered_json disk_as_json(const DiskState& disk) {
  nlohmann::ordered_json json = {{"path", disk.path}, {"state", state_name(disk)}};
  if (disk.temperature != 0) json["celsius"] = disk.temperature;
  if (!disk.model.empty()) json["model"] = disk.model;
  if (!disk.serial.empty()) json["serial"] = disk.serial;
  return json;
}
