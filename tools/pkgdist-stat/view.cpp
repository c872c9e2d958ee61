#include "view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "cli_common.h"
#include "printable.h"
#include "stat_json.h"
#include "stat_prometheus.h"
#include "stat_screen.h"
#include "stat_text.h"

namespace pkgdist::stat {

namespace {

constexpr auto kResult = cli::Output::Kind::kResult;

void write_out(std::string text) {
  cli::standard_output().write(std::move(text), kResult);
}

// Without the last row, where the cursor stands.
ScreenSize screen_size() {
  winsize screen{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &screen) != 0 || screen.ws_row < 2 || screen.ws_col == 0)
    return {};
  return {size_t{screen.ws_row} - 1, screen.ws_col};
}

}  // namespace

bool View::in_place() const {
  return options_.watch && options_.format != Format::kJson && isatty(STDOUT_FILENO) != 0;
}

bool View::show(const std::vector<tools::FoundObject>& chosen) {
  std::vector<Sample> samples;
  for (const tools::FoundObject& found : chosen) {
    try {
      samples.push_back(take_sample(found));
    } catch (const tools::BadObject& bad) {
      cli::complain(bad.what());
    }
  }
  if (options_.format == Format::kPrometheus)
    write_out(prometheus_text(samples));
  else if (options_.format == Format::kJson)
    print_events(samples);
  else
    print_text(samples);
  for (Sample& sample : samples) {
    const pid_t pid = sample.statistics.pid;
    earlier_.insert_or_assign(pid, std::move(sample));
  }
  return !samples.empty() && samples.size() == chosen.size();
}

// Of the same process: an orderly end and a new start may give the same number.
const Sample* View::earlier_of(const Sample& sample) const {
  const auto found = earlier_.find(sample.statistics.pid);
  if (found == earlier_.end()) return nullptr;
  const bool same = found->second.statistics.created_ns == sample.statistics.created_ns;
  return same ? &found->second : nullptr;
}

void View::print_events(const std::vector<Sample>& samples) const {
  for (const Sample& sample : samples)
    events_.print("statistics",
                  json_of(sample, earlier_of(sample), {options_.nonzero, options_.changed}),
                  kResult);
}

std::vector<std::string> View::lines_of(const std::vector<Sample>& samples) const {
  if (options_.format == Format::kTable) return table_of(samples);
  std::vector<std::string> lines;
  for (const Sample& sample : samples) {
    if (!lines.empty()) lines.emplace_back();
    for (std::string& line :
         text_of(sample, earlier_of(sample), {options_.nonzero, options_.changed}))
      lines.push_back(std::move(line));
  }
  return lines;
}

// One process has the screen; of several there is room for a line each.
std::vector<std::string> View::screen_lines(const std::vector<Sample>& samples) const {
  const ScreenSize size = screen_size();
  if (samples.size() == 1 && options_.format != Format::kTable)
    return screen_of(samples.front(), earlier_of(samples.front()), options_.changed, size);
  std::vector<std::string> lines = table_of(samples);
  if (lines.size() > size.rows) {
    const size_t hidden = lines.size() - size.rows + 1;
    lines.resize(size.rows - 1);
    lines.push_back("... and " + std::to_string(hidden) + " more");
  }
  for (std::string& line : lines) line = cli::printable(line).substr(0, size.columns);
  return lines;
}

void View::print_text(const std::vector<Sample>& samples) const {
  const bool screen = in_place();
  std::string text = screen ? "\x1b[H" : "";
  for (const std::string& line : screen ? screen_lines(samples) : lines_of(samples))
    text += cli::printable(line) + (screen ? "\x1b[K\n" : "\n");
  if (screen) text += "\x1b[J";
  if (options_.watch && !screen) text += "\n";
  write_out(std::move(text));
}

}  // namespace pkgdist::stat
