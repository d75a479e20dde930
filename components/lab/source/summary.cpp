#include "summary.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr std::size_t kWidth = 79;
constexpr int kNameWidth = 32;
constexpr int kColumnWidth = 12;
constexpr char kRed[] = "\x1b[1;31m";
constexpr char kBold[] = "\x1b[1m";
constexpr char kPlain[] = "\x1b[0m";

// A paragraph.
std::string folded(const std::string& text) {
  std::string lines, line;
  for (const std::string& word : split(text, ' ')) {
    if (!line.empty() && line.size() + 1 + word.size() > kWidth) {
      lines += line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return lines + line + "\n";
}

std::string row(const std::string& name, const std::vector<std::string>& cells) {
  std::string text = text_of("%-*s", kNameWidth, name.c_str());
  for (const std::string& cell : cells) text += text_of("%*s", kColumnWidth, cell.c_str());
  return text + "\n";
}

}  // namespace

std::string summary_of(const Report& report, bool colors) {
  const auto in = [&](const char* color, const std::string& text) {
    return colors ? color + text.substr(0, text.size() - 1) + kPlain + "\n" : text;
  };
  std::string text;
  const std::string alarm = alarm_of(report);
  if (!alarm.empty()) text += in(kRed, folded(alarm)) + "\n";
  text += in(kBold, folded(verdict_of(report))) + folded(others_of(report)) + "\n" +
          folded(basis_of(report)) + "\n";

  std::vector<std::string> tables, rules;
  for (const Run& run : report.runs) {
    tables.emplace_back(run.isRival ? "rival" : "table");
    rules.emplace_back(run.hysteresis ? "hysteresis" : "nearest");
  }
  text += in(kBold, row("", tables)) + in(kBold, row("", rules));
  for (const Figure& figure : figures_of(report)) {
    const std::string unit = figure.unit.empty() ? "" : " (" + figure.unit + ")";
    text += row(figure.name + unit, figure.values);
  }
  return text;
}
