// The course of a push of a release: from what the nodes say follows what is done next. Without
// input, output and clock: the owner does what next() says, and tells what came of it.
//
//   describe   the files of .pkgdist go to the nodes
//   check      the nodes check them, and take over what they have already
//   fetch      the files that any of them misses go to those that miss some
//   verify     the nodes say what is still missing: files that came damaged are fetched again
//   activate   those that are ready switch, if the policy allows it
//
// An activation of a release that the nodes have already begins with `ask`, in place of all that
// comes before `activate`. A node whose answers cease, that refuses, or that reports the failure of
// the release, drops out; the others go on, and the policy decides at the end.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "answer_watch.h"
#include "content.h"
#include "release_messages.h"
#include "release_policy.h"

namespace pkgdist::lead_program {

class ReleasePush {
 public:
  struct Settings {
    std::string name{};
    uint32_t location = 1;
    cli::ReleaseId release{};
    size_t files = 0;  // of the manifest
    ActivationPolicy policy{};
    size_t expected_nodes = 0;  // when they were not named
    bool present = false;       // the nodes have the release: it is only activated
    lead::Time silence = 30 * lead::kSecond;
    uint32_t first_number = 1;  // of the orders: later than all that these nodes have heard
  };
  enum class Phase : uint8_t { kDescribe, kAsk, kCheck, kFetch, kVerify, kActivate, kEnded };

  // What the owner has to do.
  enum class Action : uint8_t {
    kPushDescription,  // to `nodes`, then described()
    kPushFiles,        // `files` to `nodes`, then fetched()
    kOrder,            // send `question` to `nodes`
    kWait,             // until `until`, or a state comes
    kEnd,
  };
  struct Step {
    Action action = Action::kWait;
    std::vector<uint32_t> nodes{};
    std::vector<uint32_t> files{};  // by their order in the manifest
    cli::ReleaseQuestion question{};
    lead::Time until = 0;
  };

  enum class Stage : uint8_t {
    kUnreached,  // the description did not get there
    kSilent,     // its answers ceased
    kWorking,    // it checks, or activates
    kFetching,
    kReady,
    kConfirmed,
    kRefused,
    kFailed,
  };
  struct Node {
    Stage stage = Stage::kWorking;
    cli::ReleaseState said{};  // last, about this release or others
    std::string problem{};     // why it dropped out
  };

  // `nodes`: those that were named; none when they are not known before described().
  ReleasePush(Settings settings, const std::vector<uint32_t>& nodes);

  Step next(lead::Time now);
  // Before it begins: this node will not take part, for this reason.
  void leave_out(uint32_t node, const std::string& why);
  // The push of the description has ended: for each of its nodes why it lacks something, in words;
  // empty for those that have it.
  void described(const std::map<uint32_t, std::string>& lacks);
  void fetched();
  void on_state(uint32_t node, const cli::ReleaseState& state, lead::Time now);

  Phase phase() const { return phase_; }
  const std::map<uint32_t, Node>& nodes() const { return nodes_; }
  // Of the nodes that were named or expected.
  size_t total() const { return std::max(nodes_.size(), settings_.expected_nodes); }
  size_t count(Stage stage) const;
  // Those that have the release, activated or not.
  size_t ready() const { return count(Stage::kReady) + count(Stage::kConfirmed); }
  // At the end: the policy kept the nodes that are ready from being activated.
  bool held_back() const;
  // Every node did all that was asked for.
  bool complete() const;

  static constexpr lead::Time kAskAgain = AnswerWatch::kAskAgain;
  // So long after its last change an answer stands, when it is that something is missing.
  static constexpr lead::Time kSettle = lead::kSecond;
  static constexpr unsigned kMaxRounds = release::kMaxReceptions;  // of fetching
  static constexpr unsigned kMaxOrders = 3;  // to a node that does not do what it was ordered

 private:
  struct Progress {
    unsigned orders = 1;           // of this phase
    bool idle = false;             // it said that it does something else than was ordered
    lead::Time missing_since = 0;  // in kVerify, since when so many files are missing; 0: not said
  };

  std::vector<uint32_t> at(Stage stage) const;
  Step begin(Phase phase, lead::Time now);
  Step advance(lead::Time now);
  Step begin_activation(lead::Time now);
  Step begin_fetch(lead::Time now);
  Step end();
  std::optional<Step> ask_again(lead::Time now);
  Step order(cli::ReleaseOrder what, std::vector<uint32_t> nodes);
  lead::Time deadline() const;
  void settle(lead::Time now);
  void take(uint32_t node, const cli::ReleaseState& state);
  bool has_release(const cli::ReleaseState& state) const;
  void take_fetching(uint32_t node, const cli::ReleaseState& before, lead::Time now);
  void settle_as(uint32_t node, Stage stage, const std::string& problem = "");

  const Settings settings_;
  Phase phase_;
  bool begun_ = false;  // the order of the phase was given
  std::map<uint32_t, Node> nodes_;
  std::map<uint32_t, Progress> progress_;
  AnswerWatch watch_;
  std::vector<uint32_t> unheard_;  // to be asked how they stand
  uint32_t number_;                // of the next order
  uint32_t phase_number_ = 0;      // of the order of this phase
  std::vector<uint32_t> fetch_nodes_, fetch_files_;
  unsigned rounds_ = 0;
};

// "describe"
const char* phase_name(ReleasePush::Phase phase);
// "ready"
const char* stage_name(ReleasePush::Stage stage);

}  // namespace pkgdist::lead_program
