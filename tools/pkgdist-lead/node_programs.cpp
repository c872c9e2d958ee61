#include "node_programs.h"

#include <algorithm>
#include <iterator>

#include "pkgdist_lead/udp_transport.h"
#include "status_text.h"

namespace pkgdist::lead_program {

namespace {

// Addresses of nodes whose introductions are kept: as many as a lead knows, and those of a push.
constexpr size_t kMaxIntroductions = 8192;
constexpr size_t kMaxPlaces = 6 * kMaxIntroductions;

// How long a push that has ended waits for nodes to hear why.
constexpr lead::Time kTellPatience = lead::kSecond;

// How often nodes without a name are looked for.
constexpr lead::Time kNamePeriod = lead::kSecond;

// A message is sent again for so many addresses of its list as one datagram has room for.
constexpr size_t kFewNodes = 48;

// Messages of questions that are remembered: the lead may still tell what became of them.
constexpr size_t kMaxAsking = 4096;

// Names that a node may list in answer to one question.
constexpr size_t kMaxListed = 200'000;

std::vector<uint8_t> bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace

NodePrograms::NodePrograms(lead::Lead& lead, Reporter& reporter)
    : lead_(lead), reporter_(reporter) {
  reporter_.hides_message = [this](lead::MessageId id) { return asking_.contains(id); };
  reporter_.takes_message = [this](const lead::NodeInfo& node, uint32_t msg_class,
                                   std::span<const uint8_t> bytes) {
    return on_message(node, msg_class, bytes) ||
           (takes_message && takes_message(node, msg_class, bytes));
  };
}

NodePrograms::~NodePrograms() {
  reporter_.takes_message = nullptr;
  reporter_.hides_message = nullptr;
}

bool NodePrograms::on_message(const lead::NodeInfo& node, uint32_t msg_class,
                              std::span<const uint8_t> bytes) {
  if (msg_class != cli::kProgramClass) return false;
  if (auto introduction = cli::parse_introduction(bytes)) {
    on_introduction(node, std::move(*introduction));
    return true;
  }
  if (auto answer = cli::parse_answer(bytes)) {
    on_answer(node.address, std::move(*answer));
    return true;
  }
  if (auto state = cli::parse_release_state(bytes)) {
    on_release(node, std::move(*state));
    return true;
  }
  return false;
}

// --- Introductions ---

void NodePrograms::on_introduction(const lead::NodeInfo& node, cli::Introduction introduction) {
  if (introductions_.size() >= kMaxIntroductions && !introductions_.contains(node.address)) return;
  reporter_.node_introduced(node, introduction);
  if (on_host) on_host(node.address, introduction.host);
  check_location(node.address, introduction);
  for (const cli::Introduction::Place& place : introduction.places)
    if (follows_releases_ && place.releases)
      to_ask_[{node.address, place.location}] = *place.releases;
  introductions_[node.address] = std::move(introduction);
}

// The process in the introduction tells whether a lead that has not noticed a restart yet has kept
// what the new process said.
const cli::Introduction* NodePrograms::find(const lead::NodeInfo& node) const {
  const auto found = introductions_.find(node.address);
  return found != introductions_.end() && found->second.pid == node.pid ? &found->second : nullptr;
}

NodePrograms::Process* NodePrograms::silent_process(const lead::NodeInfo& node) {
  const auto found = silent_.find(node.address);
  return found != silent_.end() && found->second.pid == node.pid ? &found->second : nullptr;
}

void NodePrograms::wait_for(const lead::NodeInfo& node, lead::Time since) {
  if (silent_.size() < kMaxIntroductions || silent_.contains(node.address))
    silent_[node.address] = {node.pid, since};
}

void NodePrograms::heard(const std::vector<lead::NodeInfo>& nodes, lead::Time now) {
  for (const lead::NodeInfo& node : nodes)
    if (find(node) == nullptr && silent_process(node) == nullptr) wait_for(node, now);
}

bool NodePrograms::introduced(const std::vector<lead::NodeInfo>& nodes, lead::Time now,
                              lead::Time patience) {
  const auto owes = [&](const lead::NodeInfo& node) {
    const Process* process = silent_process(node);
    const lead::Time since = process != nullptr ? process->waited_since : listening_since_;
    return find(node) == nullptr && lead::elapsed(now, since) < patience;
  };
  if (std::any_of(nodes.begin(), nodes.end(), owes)) return false;
  for (const lead::NodeInfo& node : nodes)
    if (find(node) == nullptr && silent_process(node) == nullptr) wait_for(node, listening_since_);
  return true;
}

void NodePrograms::check_location(uint32_t node, const cli::Introduction& introduction) {
  without_location_.erase(node);
  if (push_location_ != 0 && !introduction.has(push_location_)) without_location_.insert(node);
}

void NodePrograms::push_begins(uint32_t location) {
  push_location_ = location;
  listening_since_ = lead::monotonic_now();
  without_location_.clear();
  told_.clear();
  for (const lead::Lead::NodeView& node : lead_.nodes())
    if (const cli::Introduction* introduction = find(node.info))
      check_location(node.info.address, *introduction);
}

// A node that was just heard has a moment to introduce itself, which names it better.
void NodePrograms::name_nodes(lead::Time now) {
  if (named_at_ == 0) named_at_ = now;
  if (lead::elapsed(now, named_at_) < kNamePeriod) return;
  named_at_ = now;
  for (const lead::Lead::NodeView& node : lead_.nodes())
    if (!introductions_.contains(node.info.address)) resolver_.ask(node.info.address);
  for (const auto& [node, name] : resolver_.take()) {
    if (introductions_.contains(node)) continue;
    reporter_.set_host(node, name);
    if (on_host) on_host(node, name);
  }
}

void NodePrograms::run(lead::Time now) {
  ask_for_releases(now);
  name_nodes(now);
  if (without_location_.empty() || !lead_.push_running()) return;
  std::erase_if(without_location_, [&](uint32_t node) {
    if (!lead_.leave_out(node, cli::kStatusNoLocation, now)) return false;
    reporter_.location_missing(node, push_location_);
    if (on_location_missing) on_location_missing(node, push_location_);
    told_at_ = now;
    told_.push_back(lead_.send_message(cli::kProgramClass,
                                       bytes_of(cli::unset_text(push_location_)),
                                       lead::Audience::one(node), now));
    hide(told_.back());
    return true;
  });
}

bool NodePrograms::busy(lead::Time now) const {
  return lead::elapsed(now, told_at_) < kTellPatience &&
         std::any_of(told_.begin(), told_.end(), [&](lead::MessageId id) {
           return id != 0 && !lead_.message_report(id).finished;
         });
}

// --- Releases ---

// A node repeats what an earlier lead did not acknowledge: that comes late.
bool NodePrograms::is_late(const Place& place, uint32_t pid, const cli::ReleaseState& state) const {
  const auto known = releases_.find(place);
  const auto teller = tellers_.find(place);
  return known != releases_.end() && teller != tellers_.end() && teller->second == pid &&
         state.serial < known->second.serial;
}

void NodePrograms::on_release(const lead::NodeInfo& node, cli::ReleaseState state) {
  const Place place{node.address, state.location};
  if (releases_.size() >= kMaxPlaces && !releases_.contains(place)) return;
  if (is_late(place, node.pid, state)) return;
  tellers_[place] = node.pid;
  if (on_release_state) on_release_state(node.address, state);
  // An order that was not for this node tells nothing of its releases.
  if (state.phase == cli::ReleasePhase::kRefused && !state.current && !state.candidate &&
      releases_.contains(place))
    return;
  state.files = {};
  releases_[place] = std::move(state);
}

bool NodePrograms::order(const std::string& text, std::vector<uint32_t> nodes, lead::Time now) {
  const lead::MessageId id = lead_.send_message(cli::kProgramClass, bytes_of(text),
                                                lead::Audience::only(std::move(nodes)), now);
  if (id != 0) hide(id);
  return id != 0;
}

// Only a lead that leads can ask; the others do when it is their turn.
void NodePrograms::ask_for_releases(lead::Time now) {
  std::erase_if(to_ask_, [&](const auto& entry) {
    const auto& [place, name] = entry;
    cli::ReleaseQuestion question;
    question.location = place.location;
    question.name = name;
    return order(cli::release_order_text(question), {place.node}, now);
  });
}

// --- Questions ---

void NodePrograms::hide(lead::MessageId id) {
  asking_.insert(id);
  if (asking_.size() > kMaxAsking) asking_.erase(asking_.begin());
}

// Everyone, when that is the same and the list would be long.
lead::Audience NodePrograms::audience_of(std::vector<uint32_t> nodes) const {
  if (nodes.size() > kFewNodes && nodes.size() == lead_.node_counts().heard)
    return lead::Audience::everyone();
  return lead::Audience::only(std::move(nodes));
}

bool NodePrograms::send(const Question& question, std::vector<uint32_t> nodes, lead::Time now) {
  const lead::MessageId id =
      lead_.send_message(cli::kProgramClass, bytes_of(question.text), audience_of(std::move(nodes)),
                         now, question.silence);
  if (id != 0) hide(id);
  return id != 0;
}

uint32_t NodePrograms::ask(cli::NodeQuestion question, const std::vector<lead::NodeInfo>& nodes,
                           lead::Time now, lead::Time silence) {
  Question entry{{}, silence, {}, AnswerWatch(silence)};
  std::vector<uint32_t> asked;
  for (const lead::NodeInfo& node : nodes) {
    const cli::Introduction* introduction = find(node);
    if (introduction == nullptr || !introduction->answers) continue;
    asked.push_back(node.address);
    (void)entry.answers[node.address];
  }
  if (asked.empty()) return 0;
  question.number = next_question_++;
  entry.text = cli::question_text(question);
  entry.watch.begin(asked, now);
  if (!send(entry, std::move(asked), now)) return 0;
  questions_.emplace(question.number, std::move(entry));
  return question.number;
}

// A piece of an answer shows that the node is at work, as does what it says to that.
void NodePrograms::on_answer(uint32_t node, cli::NodeAnswer answer) {
  const auto question = questions_.find(answer.number);
  if (question == questions_.end() || !question->second.watch.waits_for(node)) return;
  if (answer.working) return question->second.watch.heard(node, lead::monotonic_now());
  if (answer.states.empty() || answer.piece >= answer.pieces) return;
  auto& [said, pieces] = question->second.answers[node];
  if (!pieces.insert(answer.piece).second) return;
  question->second.watch.heard(node, lead::monotonic_now());
  const auto append = [](auto& to, auto& from) {
    const size_t room = kMaxListed - std::min(kMaxListed, to.size());
    std::move(from.begin(), from.begin() + static_cast<ptrdiff_t>(std::min(room, from.size())),
              std::back_inserter(to));
  };
  append(said.names, answer.names);
  append(said.problems, answer.problems);
  if (pieces.size() < answer.pieces) return;
  said.states = std::move(answer.states);
  question->second.watch.answered(node);
}

bool NodePrograms::answered(uint32_t question, lead::Time now) {
  const auto found = questions_.find(question);
  if (found == questions_.end()) return true;
  AnswerWatch& watch = found->second.watch;
  (void)watch.take_silent(now);
  if (std::vector<uint32_t> due = watch.take_due(now); !due.empty())
    (void)send(found->second, std::move(due), now);
  return !watch.waits();
}

std::map<uint32_t, cli::NodeAnswer> NodePrograms::take_answers(uint32_t question) {
  auto taken = questions_.extract(question);
  std::map<uint32_t, cli::NodeAnswer> answers;
  if (!taken.empty())
    for (auto& [node, answer] : taken.mapped().answers) answers[node] = std::move(answer.said);
  return answers;
}

}  // namespace pkgdist::lead_program
