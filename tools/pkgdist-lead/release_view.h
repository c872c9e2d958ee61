// What people and programs see of a release on its way: its phases, what nodes say of it, and the
// end.
#pragma once

#include <map>
#include <string>

#include "release_push.h"
#include "reporter.h"

namespace pkgdist::lead_program {

// What has travelled for a release, and how long it took.
struct ReleaseEffort {
  uint64_t bytes_sent = 0;  // on the data channel
  lead::Time time = 0;
};

class ReleaseView {
 public:
  ReleaseView(Reporter& reporter, std::string name, cli::ReleaseId release)
      : reporter_(reporter), name_(std::move(name)), release_(std::move(release)) {}

  // `nodes`: of the phase; `files` and `bytes` that are sent in it, of `all` files.
  struct PhaseText {
    ReleasePush::Phase phase;
    size_t nodes = 0;
    size_t files = 0;
    uint64_t bytes = 0;
    size_t all = 0;
  };
  void phase(const PhaseText& now);
  // Tells what is new in it.
  void state(uint32_t node, const cli::ReleaseState& state);
  // `policy`: in words.
  void end(const ReleasePush& push, const std::string& policy, const ReleaseEffort& effort);

 private:
  std::vector<uint32_t> sorted(const ReleasePush& push) const;
  void table(const ReleasePush& push);

  Reporter& reporter_;
  const std::string name_;
  const cli::ReleaseId release_;
  std::map<uint32_t, cli::ReleaseState> told_;
};

// A line of a table, without what only fills its last columns.
std::string trimmed(std::string line);
// "7"; "-" when there is none.
std::string release_text(const std::optional<cli::ReleaseId>& release);
// Of an event: null when there is none.
nlohmann::ordered_json release_json(const std::optional<cli::ReleaseId>& release);

}  // namespace pkgdist::lead_program
