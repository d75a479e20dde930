#include "page.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr std::size_t kNotesMost = 30;

// The policy lets the page ask nobody for anything, whatever stands in it.
constexpr char kHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<title>The fan's day</title>
<style>
:root { color-scheme: light dark; --paper: #fff; --ink: #1c2126; --quiet: #59636e; --line: #d5dae0;
  --best: #eef4fb; --red: #c42b2b; }
@media (prefers-color-scheme: dark) { :root { --paper: #14181c; --ink: #e4e8ec; --quiet: #9aa5b1;
  --line: #353c44; --best: #1d2833; --red: #ff7b72; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 72rem; padding: 1rem; background: var(--paper); color: var(--ink);
  font: 1rem/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
h1 { font-size: 1.3rem; line-height: 1.35; font-weight: 600; margin: .5rem 0 .75rem; }
h2 { font-size: 1.1rem; margin: 2rem 0 .5rem; }
p { max-width: 44rem; }
.quiet { color: var(--quiet); font-size: .9rem; }
.alarm { color: var(--red); font-weight: 700; font-size: 1.15rem; }
svg { display: block; width: 100%; height: auto; color: var(--ink); }
figure { margin: 0; }
figcaption { margin-top: .75rem; }
.narrow { display: none; }
@media (max-width: 45rem) { .wide { display: none; } .narrow { display: block; } }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th, td { padding: .3rem .75rem; text-align: right; border-bottom: 1px solid var(--line);
  white-space: nowrap; }
th:first-child, td:first-child { text-align: left; padding-left: 0; }
td.left, th.left { text-align: left; }
tbody th { font-weight: 400; white-space: normal; position: sticky; left: 0; background: var(--paper); }
thead th { vertical-align: bottom; white-space: normal; }
.figures td:nth-child(2) { font-weight: 600; }
.unit { color: var(--quiet); }
@media (max-width: 45rem) { th, td { padding: .3rem .45rem; font-size: .9rem; }
  .figures th:first-child { min-width: 8.5rem; } }
</style>
</head>
<body>
)";

std::string escaped(const std::string& text) {
  std::string safe;
  for (const char each : text) {
    switch (each) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += each;
    }
  }
  return safe;
}

// "47.1 C" as the page shows it, and all else that is special escaped.
std::string shown(const std::string& text) {
  std::string page = escaped(text);
  for (std::size_t at = 0; (at = page.find(" C", at)) != std::string::npos; at += 2) {
    const bool isDegrees = at > 0 && page[at - 1] >= '0' && page[at - 1] <= '9' &&
                           (at + 2 == page.size() || page.find_first_of(",;.:", at + 2) == at + 2);
    if (isDegrees) page.replace(at, 2, "&nbsp;°C");
  }
  return page;
}

std::string unit_of(const Figure& figure) {
  if (figure.unit.empty()) return "";
  return " <span class=\"unit\">" + (figure.unit == "C" ? "°C" : escaped(figure.unit)) + "</span>";
}

std::string figures_table(const Report& report) {
  std::string text =
      "<h2>The figures that decide</h2>\n<div class=\"scroll\"><table "
      "class=\"figures\">\n<thead><tr><th></th>";
  for (const Run& run : report.runs) {
    text += "<th>" + std::string(run.isRival ? "rival" : "table") + "<br>" + run.rule() + "</th>";
  }
  text += "</tr></thead>\n<tbody>\n";
  for (const Figure& figure : figures_of(report)) {
    text += "<tr><th scope=\"row\">" + escaped(figure.name) + unit_of(figure) + "</th>";
    for (const std::string& value : figure.values) text += "<td>" + escaped(value) + "</td>";
    text += "</tr>\n";
  }
  return text +
         "</tbody></table></div>\n<p class=\"quiet\">The highest temperatures of the disks are the "
         "model's true ones. Minutes above the alert level and the critical temperature count what "
         "the service measures, in whole degrees. Loudness: 50 times the logarithm of the speed's "
         "part of full speed, averaged over the day as sound energy; the higher the number, the "
         "quieter the fan. A change of command is what one hears.</p>\n";
}

std::string notes_table(const Report& report) {
  const auto notes = notes_of(report);
  std::string text = "<h2>Alerts and restarts</h2>\n";
  if (notes.empty()) return text + "<p>None, in no run.</p>\n";
  text +=
      "<div class=\"scroll\"><table>\n<thead><tr><th>time</th><th class=\"left\">run</th>"
      "<th class=\"left\">what</th></tr></thead>\n<tbody>\n";
  for (std::size_t i = 0; i < std::min(notes.size(), kNotesMost); ++i) {
    text += "<tr><td>" + moment_of(notes[i].second) + "</td><td class=\"left\">" +
            escaped(title_of(report.runs[notes[i].run])) + "</td><td class=\"left\">" +
            kHappeningTexts[static_cast<std::size_t>(notes[i].what)] + "</td></tr>\n";
  }
  text += "</tbody></table></div>\n";
  if (notes.size() <= kNotesMost) return text;
  return text + text_of("<p>And %zu more: see happenings.csv.</p>\n", notes.size() - kNotesMost);
}

std::string warnings_of(const Report& report) {
  std::string text;
  for (const std::string& warning : report.warnings) text += "<li>" + shown(warning) + "</li>\n";
  return text.empty() ? "" : "<h2>Warnings</h2>\n<ul>\n" + text + "</ul>\n";
}

}  // namespace

std::string page_of(const Report& report, const Pictures& pictures) {
  const std::string alarm = alarm_of(report);
  std::string text = kHead;
  if (!alarm.empty()) text += "<p class=\"alarm\">" + shown(alarm) + "</p>\n";
  text += "<h1>" + shown(verdict_of(report)) + "</h1>\n<p>" + shown(others_of(report)) + "</p>\n";
  text += "<p class=\"quiet\">" + escaped(basis_of(report)) + "</p>\n";
  text += "<figure>\n<div class=\"wide\">" + inline_svg(pictures.wide, "w") +
          "</div>\n<div class=\"narrow\">" + inline_svg(pictures.narrow, "n") +
          "</div>\n<figcaption class=\"quiet\">The thin lines are the table's steps, with their "
          "commands at the right edge.";
  if (report.scenario->isRecorded) text += " The time begins with the recording's first line.";
  text += "</figcaption>\n</figure>\n" + warnings_of(report) + figures_table(report) +
          notes_table(report);
  const std::string recorded =
      report.scenario->isRecorded
          ? "The temperatures are recorded ones: what the fan does has no effect on them. "
          : "";
  return text + "<h2>What the model leaves out</h2>\n<p>" + recorded + escaped(kLeftOutOfModel) +
         "</p>\n</body>\n</html>\n";
}
