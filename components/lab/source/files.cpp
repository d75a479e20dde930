#include "files.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "text.h"

namespace fs = std::filesystem;

namespace {

// All that a report can have.
constexpr const char* kNames[] = {
    "report.html",          "day.svg",           "day-narrow.svg",
    "figures.csv",          "happenings.csv",    "table-nearest.csv",
    "table-hysteresis.csv", "rival-nearest.csv", "rival-hysteresis.csv",
};

std::string minutes_csv(const Run& run, const Scenario& scenario) {
  std::string text =
      "time (s),outside (C),air (C),sensor (C),measured (C),command,speed (rpm),flow (m3/s),"
      "fan power (W)";
  for (std::size_t i = 0; i < scenario.disks.size(); ++i) {
    text += "," + scenario.diskName(i) + " (C)";
  }
  text += "\n";
  for (const Minute& minute : run.minutes) {
    text += text_of("%lld,%.3f,%.3f,%.3f,%d,%.0f,%.1f,%.5f,%.4f", minute.second, minute.outside,
                    minute.air, minute.sensor, minute.measured, minute.command, minute.speed,
                    minute.flow, minute.fanPower);
    for (const double disk : minute.disks) text += text_of(",%.3f", disk);
    text += "\n";
  }
  return text;
}

std::string figures_csv(const Report& report) {
  std::string text = "figure,unit";
  for (const Run& run : report.runs) text.append(",").append(run.id());
  text += "\n";
  for (const Figure& figure : figures_of(report)) {
    text += figure.name + "," + figure.unit;
    for (const std::string& value : figure.values) {
      text += ",";
      if (value != "-") text += value;
    }
    text += "\n";
  }
  return text;
}

std::string happenings_csv(const Report& report) {
  std::string text = "time (s),run,what\n";
  for (const Note& note : notes_of(report)) {
    text += std::to_string(note.second) + "," + report.runs[note.run].id() + "," +
            kHappeningTexts[static_cast<std::size_t>(note.what)] + "\n";
  }
  return text;
}

}  // namespace

Workshop::Workshop(const std::string& out) : m_out(fs::absolute(out).lexically_normal().string()) {
  while (m_out.size() > 1 && m_out.back() == '/') m_out.pop_back();
  std::error_code error;
  // Inside where there is an inside: what lies beside may be another file system, or not writable.
  m_folder = m_out + (fs::is_directory(m_out, error) ? "/.new" : ".new");
  if (fs::exists(m_out, error) && !fs::is_directory(m_out, error)) {
    throw LabError(out + ": this is no folder");
  }
  fs::create_directories(fs::path(m_out).parent_path(), error);
  if (!fs::create_directory(m_folder, error)) {
    throw LabError(m_folder +
                   (error ? ": this folder cannot be made: " + error.message()
                          : ": this folder is in the way. Remove it when no other lab is at work"));
  }
}

Workshop::~Workshop() {
  std::error_code ignored;
  fs::remove_all(m_folder, ignored);
}

void Workshop::deliver(const Files& files) const {
  for (const auto& [name, content] : files) write_file(m_folder + "/" + name, content);
  std::error_code error;
  fs::create_directories(m_out, error);
  for (const char* name : kNames) {
    const std::string place = m_out + "/" + name;
    if (fs::is_directory(place, error)) throw LabError(place + ": this folder is in the way");
  }
  for (const char* name : kNames) {
    const std::string place = m_out + "/" + name;
    if (files.contains(name)) {
      fs::rename(m_folder + "/" + name, place, error);
      if (error) throw LabError(place + ": could not be written: " + error.message());
    } else {
      fs::remove(place, error);
    }
  }
}

Files csv_files(const Report& report) {
  Files files;
  for (const Run& run : report.runs) {
    files[run.id() + ".csv"] = minutes_csv(run, *report.scenario);
  }
  files["figures.csv"] = figures_csv(report);
  files["happenings.csv"] = happenings_csv(report);
  return files;
}
