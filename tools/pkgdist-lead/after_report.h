// Shows what became of what a push does behind its files: the lines of after_push.h.
#pragma once

#include <string>
#include <vector>

#include "push_wire.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class AfterReport {
 public:
  // `only_list`: nothing is removed.
  AfterReport(Reporter& reporter, bool only_list) : reporter_(reporter), only_list_(only_list) {}

  // A line that is none of these changes nothing.
  void line(const Json& line);
  // What is told of all nodes together. True when everything was done.
  bool finish();

 private:
  void compared(const Json& line);
  void directories(const Json& line);
  void mirror(const Json& line);
  void mirrored(const Json& line);
  void durable(const Json& line);
  void command(const Json& line);
  void say(uint32_t node, const std::string& text);

  Reporter& reporter_;
  const bool only_list_;
  bool good_ = true;
  size_t lines_ = 0;                 // for people
  size_t compared_ = 0, agree_ = 0;  // nodes with --checksum
  std::vector<uint32_t> unasked_;    // nodes whose directories were left as they are
  std::string why_unasked_;
  size_t names_ = 0, name_nodes_ = 0;  // that go, or would
};

}  // namespace pkgdist::lead_program
