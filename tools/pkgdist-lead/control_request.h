// A message, cancel or delete that came over the control socket, from its start to its answer.
//
// Nobody is told that something happened which did not: before a delete, the nodes whose programs
// answer questions say what stands under the names, and afterwards what is left; before the cancel
// of a transaction that is not this lead's push, whether it is under way there.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "control_protocol.h"
#include "line_server.h"
#include "node_programs.h"

namespace pkgdist::lead_program {

class ControlRequest {
 public:
  ControlRequest(std::shared_ptr<cli::LineClient> client, Request request, lead::Lead& lead,
                 NodePrograms& programs, Reporter& reporter);

  // Throws std::runtime_error when the request is refused.
  void start(lead::Time now);
  void run(lead::Time now);
  bool ended() const { return step_ == Step::kEnded; }

 private:
  enum class Step : uint8_t { kAsking, kRemoving, kSent, kChecking, kEnded };
  using States = std::map<uint32_t, std::vector<std::string>>;  // by node, in the order of names

  bool asks_first() const;
  void advance(lead::Time now);
  void on_asked(lead::Time now);
  void send(lead::Time now);
  void check(lead::Time now);
  void finish();
  uint32_t ask(cli::NodeQuestion::Kind kind, const std::vector<std::string>& names, lead::Time now);
  bool some_node_says(size_t name, const std::string& state) const;
  bool some_node_has(size_t name) const;
  bool all_were_asked() const;
  std::string outcome_of(uint32_t node, size_t name) const;
  bool worked(size_t name) const;
  nlohmann::ordered_json outcome(const lead::NodeInfo& node, bool acknowledged,
                                 const std::string& reason) const;

  std::shared_ptr<cli::LineClient> client_;
  Request request_;
  lead::Lead& lead_;
  NodePrograms& programs_;
  Reporter& reporter_;
  std::vector<lead::NodeInfo> nodes_;  // that it is for and that are heard
  Step step_ = Step::kAsking;
  uint32_t question_ = 0;
  lead::MessageId id_ = 0;  // 0: nothing was sent
  States before_, after_;   // of the names, or of the transaction
  std::map<uint32_t, std::map<std::string, std::string>> removed_;  // by node and name
  std::vector<std::string> removing_;
  std::set<size_t> brought_;  // names of files that a push brought when this began
};

}  // namespace pkgdist::lead_program
