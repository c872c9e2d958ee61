// What a push does when its files have ended on the nodes, one after the other: with --checksum
// nodes compare contents, directories get their modes and times, with --delete names go that the
// lead does not have, with --durable disks are written, and the nodes' commands for the end of a
// push run.
//
// What comes of it is told in lines of JSON, which another process may show (after_report.h). Names
// in them are in base64, nodes are numbers:
//   {"event":"compared","node":N,"again":[NAME,...],"failed":[[NAME,TEXT],...],"good":true,"text":""}
//   {"event":"directories","node":N,"set":12,"failed":[[NAME,TEXT],...],"good":true,"text":""}
//   {"event":"mirror","node":N,"names":[NAME,...],"good":true,"text":""}    before anything goes
//   {"event":"mirrored","node":N,"removed":3,"failed":[[NAME,TEXT],...]}
//   {"event":"durable","nodes":[[N,ERRNO],...]}
//   {"event":"command","node":N,"good":true,"text":""}
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "durability.h"
#include "inquiry.h"
#include "push_wire.h"

namespace pkgdist::lead_program {

class AfterPush {
 public:
  using Say = std::function<void(const Json&)>;

  // All but the report and `say` must outlive the object.
  AfterPush(lead::Lead& lead, NodePrograms& programs, const QueuedPush& push, uint32_t transaction,
            lead::PushReport report, Say say);

  void run(lead::Time now);
  bool ended() const { return step_ == Step::kEnded; }
  // Nothing is left but the commands of nodes, which may take minutes.
  // Nodes that have, or may have, a file with another content.
  const std::set<uint32_t>& wrong_content() const { return wrong_content_; }
  bool waits_for_commands() const { return step_ == Step::kCommands; }
  // A message of a node; false when it is none that was waited for.
  bool on_message(uint32_t node, uint32_t msg_class, std::span<const uint8_t> bytes);

 private:
  enum class Step : uint8_t {
    kIntroductions,
    kComparing,
    kDirectories,
    kListing,
    kRemoving,
    kDisks,
    kCommands,
    kEnded
  };
  struct Node {
    lead::NodeInfo info;
    bool complete = false;  // has every file, as far as it is known
  };

  static constexpr const char* kNoAnswer = "no answer in time";

  void begin(Step step, lead::Time now);
  bool step_ended(lead::Time now);
  void tell();
  void begin_comparing();
  void tell_comparing();
  void compared_line(uint32_t node, const Inquiry::Said& said, const std::string& text);
  void begin_directories();
  void tell_directories();
  void begin_listing();
  void tell_listing();
  void begin_removing();
  void tell_removing();
  void begin_disks(lead::Time now);
  void tell_disks();
  void begin_commands();
  void tell_commands();
  void mirror_line(uint32_t node, const std::vector<std::string>& names, const std::string& text);
  Inquiry::Said said_by(const Node& node) const;
  const char* why_not_asked(const Node& node) const;
  const char* why_not_compared(const Node& node) const;
  void ask(std::vector<cli::NodeQuestion> questions, std::vector<lead::NodeInfo> nodes,
           lead::Time limit);

  lead::Lead& lead_;
  NodePrograms& programs_;
  const QueuedPush& push_;
  const uint32_t transaction_;
  const lead::PushReport report_;
  const Say say_;
  std::vector<Node> nodes_;  // that are there
  Step step_ = Step::kIntroductions;
  std::set<uint32_t> wrong_content_;
  std::vector<std::unique_ptr<Inquiry>> inquiries_;     // of the present step
  std::map<uint32_t, std::vector<std::string>> going_;  // names, by node
  std::unique_ptr<Durability> durability_;
};

// The nodes that a push would be for and how they stand, as if they had every file.
lead::PushReport listed_nodes(const lead::Lead& lead, const lead::PushRequest& request);

}  // namespace pkgdist::lead_program
