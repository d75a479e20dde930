#include "picture.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "plot-script.h"
#include "stop.h"
#include "text.h"

namespace fs = std::filesystem;

namespace {

constexpr PlotFormat kWide = {.width = 1100,
                              .font = 14,
                              .left = 0.062,
                              .right = 0.893,
                              .temperatures = 330,
                              .small = 105,
                              .line = 2.0,
                              .points = 1500,
                              .legendLeft = 0.05,
                              .legendColumns = 3,
                              .isNarrow = false};
constexpr PlotFormat kNarrow = {.width = 420,
                                .font = 15,
                                .left = 0.135,
                                .right = 0.9,
                                .temperatures = 320,
                                .small = 100,
                                .line = 2.0,
                                .points = 1500,
                                .legendLeft = 0.01,
                                .legendColumns = 1,
                                .isNarrow = true};

void run_gnuplot(const std::string& folder) {
  posix_spawn_file_actions_t actions;
  (void)::posix_spawn_file_actions_init(&actions);
  (void)::posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  (void)::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "errors",
                                           O_WRONLY | O_CREAT | O_TRUNC, 0600);
  char program[] = "gnuplot", script[] = "script";
  char* const words[] = {program, script, nullptr};
  pid_t child = 0;
  const int failed = ::posix_spawnp(&child, program, &actions, nullptr, words, environ);
  (void)::posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw LabError("gnuplot is missing: install Debian's gnuplot-nox");
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  throw_when_stopped();  // a terminal's Ctrl-C ends gnuplot too
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  throw LabError("gnuplot has failed: " + read_file(folder + "/errors"));
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// Takes out everything from one text to the end of another.
void cut_out(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t begin = 0; (begin = text.find(from, begin)) != std::string::npos;) {
    const std::size_t end = text.find(to, begin);
    if (end == std::string::npos) return;
    text.erase(begin, end + to.size() - begin);
  }
}

// What gnuplot has drawn, with the colour of the text left to the surroundings.
std::string cleaned(std::string svg) {
  cut_out(svg, "<title>Gnuplot", "</desc>");
  cut_out(svg, "<filter", "</filter>");
  replace_all(svg, "rgb(  0,   0,   0)", "currentColor");
  replace_all(svg, "rgb(0,0,0)", "currentColor");
  replace_all(svg, "=\"black\"", "=\"currentColor\"");
  replace_all(svg, "xlink:href", "href");
  return svg;
}

}  // namespace

Pictures draw(const Report& report, const std::string& folder) {
  const auto drawn = [&](const PlotFormat& format, const char* name) {
    std::string place = folder;
    place.append("/").append(name);
    fs::create_directory(place);
    place += "/";
    for (const auto& [file, content] : plot_files(report, format)) {
      write_file(place + file, content);
    }
    run_gnuplot(place);
    return cleaned(read_file(place + "out.svg"));
  };
  return {.wide = drawn(kWide, "wide"), .narrow = drawn(kNarrow, "narrow")};
}

std::string document_of(const std::string& svg) {
  constexpr char kStyle[] =
      "<style>svg { color: #1c2126; background: #fff } "
      "@media (prefers-color-scheme: dark) { svg { color: #e4e8ec; background: #14181c } }</style>";
  std::string text = svg;
  text.insert(text.find('>', text.find("<svg")) + 1, kStyle);
  return text;
}

std::string inline_svg(const std::string& svg, const std::string& prefix) {
  std::string text = svg.substr(svg.find("<svg"));
  replace_all(text, "xmlns=\"http://www.w3.org/2000/svg\"",
              "role=\"img\" aria-label=\"Temperatures, command and speed over the day\"");
  replace_all(text, "xmlns:xlink=\"http://www.w3.org/1999/xlink\"", "");
  for (const char* name : {"id='", "id=\"", "href='#", "url(#"}) {
    replace_all(text, name, name + prefix + "-");
  }
  return text;
}
