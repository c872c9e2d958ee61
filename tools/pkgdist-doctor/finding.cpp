#include "finding.h"

#include <fmt/core.h>

#include <cstdio>

namespace pkgdist::doctor {

namespace {

constexpr std::array<const char*, 4> kNames = {"ok", "note", "warning", "problem"};
// What people see first has to stand out.
constexpr std::array<const char*, 4> kMarks = {"ok", "note", "WARNING", "PROBLEM"};

// Exit statuses.
constexpr int kWell = 0;
constexpr int kWarnings = 1;
constexpr int kProblems = 2;

}  // namespace

void Findings::add(const Finding& finding) {
  const auto level = static_cast<size_t>(finding.level);
  ++count_[level];
  json_.print("finding", {{"check", finding.check},
                          {"level", kNames[level]},
                          {"what", finding.what},
                          {"why", finding.why},
                          {"mend", finding.mend}});
  if (json_.enabled()) return;
  fmt::print("{:<8} {:<10} {}\n", kMarks[level], finding.check, finding.what);
  if (!finding.why.empty()) fmt::print("{:<19} why:  {}\n", "", finding.why);
  if (!finding.mend.empty()) fmt::print("{:<19} mend: {}\n", "", finding.mend);
  std::fflush(stdout);
}

int Findings::finish() const {
  const size_t problems = count_[static_cast<size_t>(Level::kProblem)];
  const size_t warnings = count_[static_cast<size_t>(Level::kWarning)];
  const size_t notes = count_[static_cast<size_t>(Level::kNote)];
  const int status = problems != 0 ? kProblems : warnings != 0 ? kWarnings : kWell;
  json_.print(
      "verdict",
      {{"status", status}, {"problems", problems}, {"warnings", warnings}, {"notes", notes}});
  if (!json_.enabled())
    fmt::print("{} problems, {} warnings, {} notes\n", problems, warnings, notes);
  return status;
}

}  // namespace pkgdist::doctor
