// The figures that decide, and the words around them: the same in the terminal, the page and the
// files.
#pragma once

#include <string>
#include <vector>

#include "run.h"

struct Figure {
  std::string name;
  std::string unit;                 // empty: none
  std::vector<std::string> values;  // one a run
};

// Of one run.
struct Totals {
  std::vector<double> warmest;  // degrees Celsius, of each disk
  double hottest = 0;           // of them
  std::size_t hottestDisk = 0;
  int measured = -1000;      // the highest temperature that the service measures
  long long aboveAlert = 0;  // minutes, as the service measures
  long long aboveCritical = 0;
  long long overheated = 0;  // minutes that a disk is really above the critical temperature
  double changesADay = 0;
  double speedShare = 0;  // mean speed of full speed, 0 to 1
  double loudness = 0;    // dB against full speed; kSilent when the fan never turns
  double energy = 0;      // Wh a day
};
inline constexpr double kSilent = -1000;

Totals totals_of(const Run& run, const Scenario& scenario);

struct Report {
  const Scenario* scenario = nullptr;
  std::vector<Run> runs;  // the table as it is, with the other rule, then the rival likewise
  std::vector<Totals> totals;
  std::size_t compared = 1;  // the run that the picture shows beside the first one
  std::vector<std::string> warnings;

  const Configuration& table() const { return *runs.front().configuration; }
  bool hasRival() const { return runs.size() > 2; }
  // With the table as it is configured a disk gets too hot.
  bool overheats() const { return totals.front().overheated > 1; }
};

std::vector<Figure> figures_of(const Report& report);
// What a run is called beside others: "table, nearest step".
std::string title_of(const Run& run);
// The result of the table as it is, in one sentence, and what the other runs come to.
std::string verdict_of(const Report& report);
std::string others_of(const Report& report);
// What overheats, the other rule and the rival too; empty when nothing does.
std::string alarm_of(const Report& report);
// What was run: files and length.
std::string basis_of(const Report& report);
// Each happening with its time: second, run, what.
struct Note {
  long long second;
  std::size_t run;
  Happening what;
};
std::vector<Note> notes_of(const Report& report);
// What the model leaves out.
extern const char* const kLeftOutOfModel;
