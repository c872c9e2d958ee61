#include "after_push.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "pkgdist_lead/udp_transport.h"
#include "push_figures.h"

namespace pkgdist::lead_program {

namespace {

lead::Time duration(double seconds) {
  return static_cast<lead::Time>(seconds * static_cast<double>(lead::kSecond));
}

// Where the push lost something introductions get lost, too, even several times.
lead::Time introduction_patience(const lead::PushReport& report) {
  const bool lossy = std::any_of(report.nodes.begin(), report.nodes.end(),
                                 [](const auto& node) { return node.repairs != 0; });
  return lossy ? NodePrograms::kLossyIntroductionPatience : NodePrograms::kIntroductionPatience;
}

}  // namespace

AfterPush::AfterPush(lead::Lead& lead, NodePrograms& programs, const QueuedPush& push,
                     uint32_t transaction, lead::PushReport report, Say say)
    : lead_(lead),
      programs_(programs),
      push_(push),
      transaction_(transaction),
      report_(std::move(report)),
      say_(std::move(say)) {
  std::unordered_map<uint32_t, lead::NodeInfo> known;
  for (const lead::Lead::NodeView& node : lead_.nodes()) known[node.info.address] = node.info;
  for (const lead::PushNodeReport& node : report_.nodes)
    if (const auto found = known.find(node.address);
        node.heard && !node.silent && found != known.end())
      nodes_.push_back({found->second, is_complete(node)});
}

// --- Its course ---

void AfterPush::run(lead::Time now) {
  while (step_ != Step::kEnded && step_ended(now)) {
    tell();
    inquiries_.clear();
    begin(static_cast<Step>(static_cast<int>(step_) + 1), now);
  }
}

bool AfterPush::step_ended(lead::Time now) {
  if (step_ == Step::kIntroductions) {
    std::vector<lead::NodeInfo> nodes;
    for (const Node& node : nodes_) nodes.push_back(node.info);
    return programs_.introduced(nodes, now, introduction_patience(report_));
  }
  if (step_ == Step::kDisks) return !durability_ || durability_->run(lead_, now);
  bool all = true;
  for (const auto& inquiry : inquiries_) all = inquiry->run(now) && all;
  return all;
}

void AfterPush::begin(Step step, lead::Time now) {
  step_ = step;
  if (step == Step::kComparing) begin_comparing();
  if (step == Step::kDirectories) begin_directories();
  if (step == Step::kListing) begin_listing();
  if (step == Step::kRemoving) begin_removing();
  if (step == Step::kDisks) begin_disks(now);
  if (step == Step::kCommands) begin_commands();
}

void AfterPush::tell() {
  if (step_ == Step::kComparing) tell_comparing();
  if (step_ == Step::kDirectories) tell_directories();
  if (step_ == Step::kListing) tell_listing();
  if (step_ == Step::kRemoving) tell_removing();
  if (step_ == Step::kDisks) tell_disks();
  if (step_ == Step::kCommands) tell_commands();
}

void AfterPush::ask(std::vector<cli::NodeQuestion> questions, std::vector<lead::NodeInfo> nodes) {
  if (questions.empty() || nodes.empty()) return;
  inquiries_.push_back(
      std::make_unique<Inquiry>(programs_, std::move(questions), std::move(nodes)));
}

// To the questions of a step with one inquiry. Nothing when the node was not asked: its program may
// have introduced itself after the others were.
Inquiry::Said AfterPush::said_by(uint32_t node) const {
  if (inquiries_.empty()) return {};
  const auto found = inquiries_[0]->said().find(node);
  return found == inquiries_[0]->said().end() ? Inquiry::Said() : found->second;
}

// Null: it answers questions about trees, in a directory.
const char* AfterPush::why_not_asked(const Node& node) const {
  const cli::Introduction* introduction = programs_.find(node.info);
  if (introduction == nullptr || !introduction->answers || !introduction->trees)
    return "its program does not do it";
  const auto* place = introduction->place(push_.request.location);
  if (place == nullptr) return cli::kStateNoLocation;
  return place->memory ? "the location is in shared memory" : nullptr;
}

// --- Disks ---

void AfterPush::begin_disks(lead::Time now) {
  if (!push_.durable_seconds || push_.tree.only_list) return;
  durability_ = std::make_unique<Durability>(transaction_, push_.request.location,
                                             duration(*push_.durable_seconds));
  durability_->ask(lead_, report_, now);
}

bool AfterPush::on_message(uint32_t node, uint32_t msg_class, std::span<const uint8_t> bytes) {
  return durability_ && durability_->on_message(node, msg_class, bytes, lead::monotonic_now());
}

void AfterPush::tell_disks() {
  if (!durability_) return;
  Json nodes = Json::array();
  for (const auto& [node, error] : durability_->outcomes()) nodes.push_back({node, error});
  say_({{"event", "durable"}, {"nodes", nodes}});
}

// --- Commands ---

void AfterPush::begin_commands() {
  if (push_.tree.only_list) return;
  for (const bool complete : {true, false}) {
    std::vector<lead::NodeInfo> asked;
    for (const Node& node : nodes_) {
      const cli::Introduction* introduction = programs_.find(node.info);
      if (node.complete != complete || introduction == nullptr || !introduction->complete_seconds ||
          !introduction->has(push_.request.location))
        continue;
      asked.push_back(node.info);
    }
    cli::NodeQuestion question;
    question.kind = cli::NodeQuestion::Kind::kComplete;
    question.location = push_.request.location;
    question.transaction = transaction_;
    question.status = complete ? 0 : 1;
    ask({question}, asked);
  }
}

void AfterPush::tell_commands() {
  for (const auto& inquiry : inquiries_)
    for (const auto& [node, said] : inquiry->said()) {
      const std::string text = !said.all                           ? kNoAnswer
                               : said.states[0] == cli::kStateDone ? ""
                                                                   : said.states[0];
      say_({{"event", "command"}, {"node", node}, {"good", text.empty()}, {"text", text}});
    }
}

lead::PushReport listed_nodes(const lead::Lead& lead, const lead::PushRequest& request) {
  lead::PushReport report;
  std::map<uint32_t, lead::PushNodeReport> nodes;
  for (const uint32_t address : request.nodes) nodes[address].address = address;
  for (const lead::Lead::NodeView& node : lead.nodes()) {
    if (!request.nodes.empty() && !nodes.contains(node.info.address)) continue;
    lead::PushNodeReport& entry = nodes[node.info.address];
    entry.address = node.info.address;
    entry.heard = true;
    entry.silent = node.silent;
  }
  for (const auto& [address, node] : nodes) report.nodes.push_back(node);
  report.expected_nodes = std::max<size_t>(report.nodes.size(), request.node_count);
  return report;
}

}  // namespace pkgdist::lead_program
