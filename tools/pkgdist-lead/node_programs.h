// What the programs of nodes tell this lead's program beside the files: who they are, and what they
// answer to questions (introduction.h).
//
// What a node that does not introduce itself is called, the resolver is asked.
//
// How their releases stand is remembered as each node told it last (release_messages.h).
//
// A node that introduces itself and has not set the location of the running push ends at once in
// it, and is told why. What a node said counts as long as its process runs.
#pragma once

#include <compare>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "answer_watch.h"
#include "introduction.h"
#include "name_resolver.h"
#include "pkgdist_lead/lead.h"
#include "release_messages.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class NodePrograms {
 public:
  // Hears every message of a node before it is reported.
  NodePrograms(lead::Lead& lead, Reporter& reporter);
  ~NodePrograms();
  NodePrograms(const NodePrograms&) = delete;
  NodePrograms& operator=(const NodePrograms&) = delete;

  // Of the process that the node has now; null when it has not introduced itself.
  const cli::Introduction* find(const lead::NodeInfo& node) const;

  // A push to this location has begun.
  void push_begins(uint32_t location);
  // Does what messages could not do while they were handed in.
  void run(lead::Time now);

  // A node has not confirmed yet what it was told; for a moment.
  bool busy(lead::Time now) const;

  // These are there. Those that are new since the push began have the time from here on to
  // introduce themselves, the others from its begin.
  void heard(const std::vector<lead::NodeInfo>& nodes, lead::Time now);
  // How long nodes that were heard are waited for to introduce themselves. It takes a node
  // milliseconds after the first ping, a tenth of a second when the message is lost, a second when
  // that happens three times more (half a second and five seconds where the program leaves the
  // library's time-outs as they are). A program that does not do it is waited for once.
  static constexpr lead::Time kIntroductionPatience = 600 * lead::kMillisecond;
  static constexpr lead::Time kLossyIntroductionPatience = 4 * lead::kSecond;
  // Every node of a list has introduced itself, or will not: it had `patience` for it.
  bool introduced(const std::vector<lead::NodeInfo>& nodes, lead::Time now, lead::Time patience);

  // Asks those of the nodes that answer questions. The number of the question; 0: nobody is asked.
  // A node that is at work says so; one that says nothing for `silence` is given up.
  uint32_t ask(cli::NodeQuestion question, const std::vector<lead::NodeInfo>& nodes, lead::Time now,
               lead::Time silence);
  // All that were asked have answered, or fell silent. Asks again those that say nothing.
  bool answered(uint32_t question, lead::Time now);
  // By address: what each said, without states for those that did not. The question is forgotten.
  std::map<uint32_t, cli::NodeAnswer> take_answers(uint32_t question);

  // What the nodes' hosts are called, as far as they or the resolver have said it, by address.
  const std::map<uint32_t, std::string>& hosts() const { return reporter_.hosts(); }
  // Hears of each that is told; may be null.
  std::function<void(uint32_t node, const std::string& host)> on_host;
  // How the releases of a node's location stood when it was told last, without the lists of files.
  struct Place {
    uint32_t node = 0;
    uint32_t location = 0;
    auto operator<=>(const Place&) const = default;
  };
  const std::map<Place, cli::ReleaseState>& releases() const { return releases_; }
  // Asks nodes that introduce themselves how their releases stand.
  void follow_releases() { follows_releases_ = true; }
  // Sends nodes an order about their releases; false while this lead does not lead. What becomes of
  // the message is not reported.
  bool order(const std::string& text, std::vector<uint32_t> nodes, lead::Time now);
  // Hears what nodes say of their releases; may be null.
  std::function<void(uint32_t node, const cli::ReleaseState&)> on_release_state;

  // Hears of each node that a push goes on without; may be null.
  std::function<void(uint32_t node, uint32_t location)> on_location_missing;
  // Hears a message that is none of these; with true it is not reported either.
  std::function<bool(const lead::NodeInfo&, uint32_t, std::span<const uint8_t>)> takes_message;

 private:
  struct Answer {
    cli::NodeAnswer said;            // without states until it is whole
    std::set<uint32_t> pieces = {};  // that have come
  };
  struct Process {
    uint32_t pid = 0;
    lead::Time waited_since = 0;
  };
  struct Question {
    std::string text;
    lead::Time silence = 0;
    std::map<uint32_t, Answer> answers;
    AnswerWatch watch;
  };
  bool on_message(const lead::NodeInfo& node, uint32_t msg_class, std::span<const uint8_t> bytes);
  Process* silent_process(const lead::NodeInfo& node);
  void wait_for(const lead::NodeInfo& node, lead::Time since);
  void on_introduction(const lead::NodeInfo& node, cli::Introduction introduction);
  void on_answer(uint32_t node, cli::NodeAnswer answer);
  lead::Audience audience_of(std::vector<uint32_t> nodes) const;
  bool send(const Question& question, std::vector<uint32_t> nodes, lead::Time now);
  void hide(lead::MessageId id);
  void on_release(const lead::NodeInfo& node, cli::ReleaseState state);
  bool is_late(const Place& place, uint32_t pid, const cli::ReleaseState& state) const;
  void check_location(uint32_t node, const cli::Introduction& introduction);
  void ask_for_releases(lead::Time now);
  void name_nodes(lead::Time now);

  lead::Lead& lead_;
  Reporter& reporter_;
  std::unordered_map<uint32_t, cli::Introduction> introductions_;  // by address
  cli::NameResolver resolver_;
  lead::Time named_at_ = 0;                        // when it was asked last
  std::unordered_map<uint32_t, Process> silent_;   // have not introduced themselves, by address
  uint32_t push_location_ = 0;                     // 0: before the first push
  lead::Time listening_since_ = 0;                 // the push's begin
  std::unordered_set<uint32_t> without_location_;  // nodes that the push does not have yet
  std::vector<lead::MessageId> told_;              // to nodes without the location
  lead::Time told_at_ = 0;
  std::map<Place, cli::ReleaseState> releases_;
  std::map<Place, uint32_t> tellers_;  // processes that told them
  bool follows_releases_ = false;
  std::map<Place, std::string> to_ask_;  // for the release of this name
  std::map<uint32_t, Question> questions_;
  // By chance: an answer to an earlier process may come late, and is not to be taken for one to
  // this.
  uint32_t next_question_ = std::random_device()() / 2 + 1;
  std::set<lead::MessageId> asking_;  // messages of questions and orders
};

}  // namespace pkgdist::lead_program
