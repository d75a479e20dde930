// The readers of the lab.
#include <algorithm>

#include "day.h"
#include "machine.h"
#include "readers.h"
#include "text.h"

namespace {

using machine::expect;

constexpr char kEnclosure[] = "/enclosure", kDayFile[] = "/day", kRecording[] = "/recording";
constexpr double kColdest = -50, kWarmest = 150;

// A message names a line that is in its file.
void expect_message(const std::string& message) {
  const std::size_t colon = message.find(':');
  const std::string file = message.substr(0, colon);
  expect(file == kEnclosure || file == kDayFile || file == kRecording);
  const int line = std::atoi(message.c_str() + colon + 1);
  if (message[colon + 1] == ' ') return;
  expect(line >= 1 && line <= std::ranges::count(machine::text_of(file), '\n') + 1);
}

void expect_scenario(const Scenario& scenario) {
  appliance::EnclosureParameters parameters;
  expect(appliance::readEnclosure(scenario.enclosure, parameters).empty());
  expect(scenario.seconds >= kMinute && scenario.seconds <= 168 * kHour);
  expect(std::ranges::is_sorted(scenario.events, {}, [](const auto& e) { return e.first; }));
  const std::size_t disks = scenario.parameters.disks.size();
  expect(scenario.start.size() == disks && scenario.disks.size() <= disks);
  for (const auto& [second, action] : scenario.events) {
    expect(second >= 0 && action.find('\n') == std::string::npos);
    if (!action.starts_with("celsius ")) continue;
    const auto cells = split(action.substr(8), ',');
    expect(cells.size() == disks);
    for (const std::string& cell : cells) {
      const auto celsius = number_in(cell);
      expect(celsius && *celsius >= kColdest && *celsius <= kWarmest);
    }
  }
}

void read(const Input& input, const char* day, const char* recording) {
  machine::run([&] {
    try {
      expect_scenario(read_scenario(kEnclosure, day, recording, input.option ? 1 : 0));
    } catch (const LabError& error) {
      expect_message(error.what());
    }
  });
}

void read_recording(const Input& input) {
  machine::put(kRecording, input.piece(0));
  read(input, "", kRecording);
}
void read_day(const Input& input) {
  machine::put(kDayFile, input.piece(0));
  read(input, kDayFile, "");
}
void read_enclosure(const Input& input) {
  machine::put(kEnclosure, input.piece(0));
  read(input, kDayFile, "");
}

constexpr Reader kReaders[] = {{'R', read_recording}, {'Y', read_day}, {'E', read_enclosure}};

}  // namespace

std::span<const Reader> lab_readers() { return kReaders; }
