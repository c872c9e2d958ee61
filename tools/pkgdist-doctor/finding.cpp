#include "finding.h"

#include <fmt/core.h>

#include "cli_common.h"

namespace pkgdist::doctor {

namespace {

constexpr std::array<const char*, 4> kNames = {"ok", "note", "warning", "problem"};
// What people see first has to stand out.
constexpr std::array<const char*, 4> kMarks = {"ok", "note", "WARNING", "PROBLEM"};

using Kind = cli::Output::Kind;

void print(const std::string& line) {
  cli::standard_output().line(line, Kind::kResult);
}

}  // namespace

void Findings::add(const Finding& finding) {
  const auto level = static_cast<size_t>(finding.level);
  ++count_[level];
  json_.print("finding",
              {{"check", finding.check},
               {"level", kNames[level]},
               {"what", finding.what},
               {"why", finding.why},
               {"mend", finding.mend}},
              Kind::kResult);
  if (json_.enabled()) return;
  print(fmt::format("{:<8} {:<10} {}", kMarks[level], finding.check, finding.what));
  if (!finding.why.empty()) print(fmt::format("{:<19} why:  {}", "", finding.why));
  if (!finding.mend.empty()) print(fmt::format("{:<19} mend: {}", "", finding.mend));
}

int Findings::finish() const {
  const size_t problems = count_[static_cast<size_t>(Level::kProblem)];
  const size_t warnings = count_[static_cast<size_t>(Level::kWarning)];
  const size_t notes = count_[static_cast<size_t>(Level::kNote)];
  const int status = problems + warnings != 0 ? cli::kExitFailure : cli::kExitOk;
  json_.print(
      "verdict",
      {{"status", status}, {"problems", problems}, {"warnings", warnings}, {"notes", notes}},
      Kind::kResult);
  if (!json_.enabled())
    print(fmt::format("{} problems, {} warnings, {} notes", problems, warnings, notes));
  return status;
}

}  // namespace pkgdist::doctor
