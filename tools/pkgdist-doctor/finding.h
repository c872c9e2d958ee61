// What the doctor has found: one finding for each thing that was looked at.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "json_events.h"

namespace pkgdist::doctor {

enum class Level { kOk, kNote, kWarning, kProblem };

struct Finding {
  Level level = Level::kOk;
  std::string check;  // what was looked at, in a word
  std::string what;   // what was found
  std::string why;    // why it matters; empty when all is well
  std::string mend;   // the command that fixes it, or where to look
};

// Tells findings as they come, and counts them.
class Findings {
 public:
  explicit Findings(bool json) : json_(json) {}

  void add(const Finding& finding);
  void ok(const std::string& check, const std::string& what) {
    add({Level::kOk, check, what, "", ""});
  }
  // Something that could not be looked at, or is good to know: no reason to worry.
  void note(const std::string& check, const std::string& what, const std::string& mend = "") {
    add({Level::kNote, check, what, "", mend});
  }
  // The last line; returns the exit status.
  int finish() const;

 private:
  cli::JsonEvents json_;
  std::array<size_t, 4> count_{};
};

}  // namespace pkgdist::doctor
