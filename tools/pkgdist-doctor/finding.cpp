#include "finding.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "counted.h"
#include "host_table.h"

namespace pkgdist::doctor {

namespace {

constexpr std::array<const char*, 4> kNames = {"ok", "note", "warning", "problem"};
// What people see first has to stand out.
constexpr std::array<const char*, 4> kMarks = {"ok", "note", "WARNING", "PROBLEM"};

constexpr size_t kTextColumn = 20;
// A host that is alone needs no table.
constexpr size_t kHostsOfTable = 2;

using Kind = cli::Output::Kind;

void print_line(const std::string& line) {
  cli::standard_output().line(line, Kind::kResult);
}

// Columns of the terminal; 0 when the output is none.
size_t terminal_columns() {
  winsize screen{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &screen) != 0) return 0;
  return screen.ws_col;
}

// The text behind the first line's beginning, broken between words where a terminal would break it
// anywhere.
void print_wrapped(const std::string& begin, const std::string& text) {
  const size_t columns = terminal_columns();
  const size_t room = columns > 2 * kTextColumn ? columns - begin.size() : std::string::npos;
  std::string rest = text, prefix = begin;
  while (rest.size() > room) {
    size_t end = rest.rfind(' ', room);
    if (end == std::string::npos || end == 0) end = rest.find(' ');
    if (end == std::string::npos) break;
    print_line(prefix + rest.substr(0, end));
    rest.erase(0, end + 1);
    prefix = std::string(begin.size(), ' ');
  }
  print_line(prefix + rest);
}

}  // namespace

void Findings::add(const Finding& finding) {
  ++count_[static_cast<size_t>(finding.level)];
  nlohmann::ordered_json fields = {{"check", finding.check},
                                   {"level", kNames[static_cast<size_t>(finding.level)]},
                                   {"what", finding.what},
                                   {"why", finding.why},
                                   {"mend", finding.mend}};
  if (!finding.hosts.empty()) fields["hosts"] = finding.hosts;
  json_.print("finding", fields, Kind::kResult);
  if (json_.enabled()) return;
  if (finding.level >= Level::kWarning)
    print(finding);
  else
    later_.push_back(finding);
}

void Findings::print(const Finding& finding) const {
  print_wrapped(
      fmt::format("{:<8} {:<10} ", kMarks[static_cast<size_t>(finding.level)], finding.check),
      finding.what);
  const std::string indent(kTextColumn, ' ');
  if (!finding.why.empty()) print_wrapped(indent + "why:  ", finding.why);
  // A command stays on its line, to be copied.
  if (!finding.mend.empty()) print_line(indent + "fix: " + finding.mend);
}

// "ok       this host  interface, buffers, location 1"
void Findings::print_well() const {
  std::vector<std::string> subjects;
  std::map<std::string, std::vector<std::string>> checks;
  for (const Finding& finding : later_) {
    if (finding.level != Level::kOk) continue;
    if (!checks.contains(finding.subject)) subjects.push_back(finding.subject);
    std::vector<std::string>& list = checks[finding.subject];
    if (std::find(list.begin(), list.end(), finding.check) == list.end())
      list.push_back(finding.check);
  }
  for (const std::string& subject : subjects) {
    if (subject != Finding().subject && hosts_.size() >= kHostsOfTable) continue;
    print_wrapped(fmt::format("{:<8} {:<10} ", kMarks[0], subject),
                  fmt::format("{}", fmt::join(checks[subject], ", ")));
  }
}

void Findings::print_hosts() const {
  if (hosts_.size() < kHostsOfTable) return;
  for (const std::string& line : host_table(hosts_)) print_line(line);
}

int Findings::finish() {
  const size_t problems = count_[static_cast<size_t>(Level::kProblem)];
  const size_t warnings = count_[static_cast<size_t>(Level::kWarning)];
  const size_t notes = count_[static_cast<size_t>(Level::kNote)];
  const int status = problems + warnings != 0 ? cli::kExitFailure : cli::kExitOk;
  for (const HostLine& one : hosts_)
    json_.print("host",
                {{"host", one.host},
                 {"ways", one.ways},
                 {"good_ways", one.good_ways},
                 {"lost_percent", one.lost_percent},
                 {"troubles", one.troubles}},
                Kind::kResult);
  json_.print(
      "verdict",
      {{"status", status}, {"problems", problems}, {"warnings", warnings}, {"notes", notes}},
      Kind::kResult);
  if (json_.enabled()) return status;
  for (const Finding& finding : later_)
    if (finding.level == Level::kNote || verbose_) print(finding);
  if (!verbose_) print_well();
  print_hosts();
  print_line(fmt::format("{}, {}, {}", cli::counted(problems, "problem"),
                         cli::counted(warnings, "warning"), cli::counted(notes, "note")));
  return status;
}

}  // namespace pkgdist::doctor
