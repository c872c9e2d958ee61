// Samples of processes on standard output, once or again and again: text, a table, a terminal's
// screen, JSON or Prometheus' format.
#pragma once

#include <sys/types.h>

#include <map>
#include <vector>

#include "json_events.h"
#include "sample.h"

namespace pkgdist::stat {

enum class Format { kText, kTable, kJson, kPrometheus };

struct ViewOptions {
  Format format = Format::kText;
  bool nonzero = false;  // leave out entries that were never used
  bool changed = false;  // leave out entries that are as they were the last time
  bool watch = false;    // shown again and again: in place when that is a terminal
};

class View {
 public:
  explicit View(const ViewOptions& options)
      : options_(options), events_(options.format == Format::kJson) {}

  // Takes a sample of each and shows them. Whether all could be read; complains of the others.
  bool show(const std::vector<tools::FoundObject>& chosen);

  // Whether the output is rewritten in its place.
  bool in_place() const;

 private:
  const Sample* earlier_of(const Sample& sample) const;
  void print_events(const std::vector<Sample>& samples) const;
  void print_text(const std::vector<Sample>& samples) const;
  std::vector<std::string> lines_of(const std::vector<Sample>& samples) const;
  std::vector<std::string> screen_lines(const std::vector<Sample>& samples) const;

  const ViewOptions options_;
  cli::JsonEvents events_;
  std::map<pid_t, Sample> earlier_;
};

}  // namespace pkgdist::stat
