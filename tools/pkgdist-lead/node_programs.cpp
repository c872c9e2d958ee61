#include "node_programs.h"

#include <algorithm>

#include "status_text.h"

namespace pkgdist::lead_program {

namespace {

// Addresses of nodes whose introductions are kept: as many as a lead knows, and those of a push.
constexpr size_t kMaxIntroductions = 8192;

// How long a push that has ended waits for nodes to hear why.
constexpr lead::Time kTellPatience = lead::kSecond;

std::vector<uint8_t> bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace

NodePrograms::NodePrograms(lead::Lead& lead, Reporter& reporter)
    : lead_(lead), reporter_(reporter) {
  reporter_.takes_message = [this](const lead::NodeInfo& node, uint32_t msg_class,
                                   std::span<const uint8_t> bytes) {
    return on_message(node, msg_class, bytes) ||
           (takes_message && takes_message(node, msg_class, bytes));
  };
}

NodePrograms::~NodePrograms() {
  reporter_.takes_message = nullptr;
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
  return false;
}

// --- Introductions ---

void NodePrograms::on_introduction(const lead::NodeInfo& node, cli::Introduction introduction) {
  if (introductions_.size() >= kMaxIntroductions && !introductions_.contains(node.address)) return;
  reporter_.node_introduced(node, introduction);
  check_location(node.address, introduction);
  introductions_[node.address] = std::move(introduction);
}

// The process in the introduction tells whether a lead that has not noticed a restart yet has kept
// what the new process said.
const cli::Introduction* NodePrograms::find(const lead::NodeInfo& node) const {
  const auto found = introductions_.find(node.address);
  return found != introductions_.end() && found->second.pid == node.pid ? &found->second : nullptr;
}

void NodePrograms::check_location(uint32_t node, const cli::Introduction& introduction) {
  without_location_.erase(node);
  if (push_location_ != 0 && !introduction.has(push_location_)) without_location_.insert(node);
}

void NodePrograms::push_begins(uint32_t location) {
  push_location_ = location;
  without_location_.clear();
  told_.clear();
  for (const lead::Lead::NodeView& node : lead_.nodes())
    if (const cli::Introduction* introduction = find(node.info))
      check_location(node.info.address, *introduction);
}

void NodePrograms::run(lead::Time now) {
  if (without_location_.empty() || !lead_.push_running()) return;
  std::erase_if(without_location_, [&](uint32_t node) {
    if (!lead_.leave_out(node, cli::kStatusNoLocation, now)) return false;
    reporter_.location_missing(node, push_location_);
    if (on_location_missing) on_location_missing(node, push_location_);
    told_at_ = now;
    told_.push_back(lead_.send_message(cli::kProgramClass,
                                       bytes_of(cli::unset_text(push_location_)),
                                       lead::Audience::one(node), now));
    return true;
  });
}

bool NodePrograms::busy(lead::Time now) const {
  return lead::elapsed(now, told_at_) < kTellPatience &&
         std::any_of(told_.begin(), told_.end(), [&](lead::MessageId id) {
           return id != 0 && !lead_.message_report(id).finished;
         });
}

// --- Questions ---

uint32_t NodePrograms::ask(cli::NodeQuestion question, const std::vector<lead::NodeInfo>& nodes,
                           lead::Time now, lead::Time limit) {
  std::vector<uint32_t> asked;
  Question entry;
  for (const lead::NodeInfo& node : nodes) {
    const cli::Introduction* introduction = find(node);
    if (introduction == nullptr || !introduction->answers) continue;
    asked.push_back(node.address);
    entry.answers[node.address];
  }
  if (asked.empty()) return 0;
  question.number = ++next_question_;
  entry.waiting = asked.size();
  entry.deadline = now + limit;
  if (lead_.send_message(cli::kProgramClass, bytes_of(cli::question_text(question)),
                         lead::Audience::only(std::move(asked)), now, limit) == 0)
    return 0;
  questions_[question.number] = std::move(entry);
  return question.number;
}

void NodePrograms::on_answer(uint32_t node, cli::NodeAnswer answer) {
  const auto question = questions_.find(answer.number);
  if (question == questions_.end()) return;
  const auto found = question->second.answers.find(node);
  if (found == question->second.answers.end() || !found->second.empty() || answer.states.empty())
    return;
  found->second = std::move(answer.states);
  --question->second.waiting;
}

bool NodePrograms::answered(uint32_t question, lead::Time now) const {
  const auto found = questions_.find(question);
  return found == questions_.end() || found->second.waiting == 0 || now >= found->second.deadline;
}

std::map<uint32_t, std::vector<std::string>> NodePrograms::take_answers(uint32_t question) {
  auto taken = questions_.extract(question);
  if (taken.empty()) return {};
  return std::move(taken.mapped().answers);
}

}  // namespace pkgdist::lead_program
