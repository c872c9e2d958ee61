// Questions to the programs of nodes, one after the other. A node that falls silent before it has
// answered one is not asked the next.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "node_programs.h"

namespace pkgdist::lead_program {

class Inquiry {
 public:
  // What a node has said to all questions together.
  struct Said {
    bool all = false;  // questions are answered
    std::vector<std::string> states;
    std::vector<cli::NamedText> names, problems;
  };

  Inquiry(NodePrograms& programs, std::vector<cli::NodeQuestion> questions,
          std::vector<lead::NodeInfo> nodes);

  // True when it has ended.
  bool run(lead::Time now);
  // By the address of each node.
  const std::map<uint32_t, Said>& said() const { return said_; }

 private:
  void ask_next(lead::Time now);
  void take(std::map<uint32_t, cli::NodeAnswer> answers);

  NodePrograms& programs_;
  std::vector<cli::NodeQuestion> questions_;
  std::vector<lead::NodeInfo> nodes_;  // that have answered so far
  size_t next_ = 0;                    // question
  uint32_t question_ = 0;              // that waits for answers, 0: none
  std::map<uint32_t, Said> said_;
};

}  // namespace pkgdist::lead_program
