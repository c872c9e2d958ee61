// What the doctor has found: one finding for each cause of trouble, whatever it shows in.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "json_events.h"

namespace pkgdist::doctor {

enum class Level { kOk, kNote, kWarning, kProblem };

struct Finding {
  Level level = Level::kOk;
  std::string check;  // what was looked at, in a word
  std::string what;   // what was found
  std::string why;    // why it matters; empty when all is well
  std::string mend;   // the command that fixes it, or where to look
  // Of what is well: whose line it stands in.
  std::string subject = "this host";
  // The hosts of the other side that it shows in; people get some of them in `what`.
  std::vector<std::string> hosts = {};
};

// What came of the probes between here and one host of the other side.
struct HostLine {
  std::string host;
  size_t ways = 0;       // that were tried
  size_t good_ways = 0;  // on which probes pass
  double lost_percent = 0;
  std::vector<std::string> troubles;  // checks that found something
};

// Tells findings, and counts them. People get warnings and problems as they come; then, at the end,
// what could not be looked at, and what is well in a line for each host.
class Findings {
 public:
  // `verbose`: what is well has a line for each check.
  Findings(bool json, bool verbose) : json_(json), verbose_(verbose) {}

  void add(const Finding& finding);
  void ok(const std::string& check, const std::string& what) {
    add({Level::kOk, check, what, "", ""});
  }
  // Something that could not be looked at, or is good to know: no reason to worry.
  void note(const std::string& check, const std::string& what, const std::string& mend = "") {
    add({Level::kNote, check, what, "", mend});
  }
  // A host of the other side. Two and more of them get a table at the end.
  void add_host(const HostLine& line) { hosts_.push_back(line); }

  // The last line; returns the exit status.
  int finish();

 private:
  void print(const Finding& finding) const;
  void print_well() const;
  void print_hosts() const;

  cli::JsonEvents json_;
  bool verbose_;
  std::array<size_t, 4> count_{};
  std::vector<Finding> later_;  // notes and what is well
  std::vector<HostLine> hosts_;
};

}  // namespace pkgdist::doctor
