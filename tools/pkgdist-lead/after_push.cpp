#include "after_push.h"

#include <algorithm>
#include <unordered_map>

#include "base64.h"
#include "pkgdist_lead/udp_transport.h"
#include "push_figures.h"

namespace pkgdist::lead_program {

namespace {

constexpr const char* kNoAnswer = "no answer in time";

lead::Time duration(double seconds) {
  return static_cast<lead::Time>(seconds * static_cast<double>(lead::kSecond));
}

Json encode_texts(const std::vector<cli::NamedText>& texts) {
  Json list = Json::array();
  for (const cli::NamedText& entry : texts)
    list.push_back({cli::encode_base64(entry.name), entry.text});
  return list;
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
    return programs_.introduced(nodes, now);
  }
  if (step_ == Step::kDisks) return !durability_ || durability_->run(lead_, now);
  bool all = true;
  for (const auto& inquiry : inquiries_) all = inquiry->run(now) && all;
  return all;
}

void AfterPush::begin(Step step, lead::Time now) {
  step_ = step;
  if (step == Step::kDirectories) begin_directories();
  if (step == Step::kListing) begin_listing();
  if (step == Step::kRemoving) begin_removing();
  if (step == Step::kDisks) begin_disks(now);
  if (step == Step::kCommands) begin_commands();
}

void AfterPush::tell() {
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

// --- Directories ---

void AfterPush::begin_directories() {
  if (push_.tree.only_list) return;
  std::vector<lead::NodeInfo> asked;
  for (const Node& node : nodes_)
    if (why_not_asked(node) == nullptr) asked.push_back(node.info);
  ask(directory_questions(push_.tree, push_.request.location), asked);
}

void AfterPush::tell_directories() {
  const auto count = std::count_if(push_.tree.directories.begin(), push_.tree.directories.end(),
                                   [](const auto& directory) { return directory.name != "."; });
  if (count == 0 || push_.tree.only_list) return;
  // Of --keep-directory-links: then a link in the place of a directory is no failure.
  const bool links_stay = push_.request.directories.empty();
  for (const Node& node : nodes_) {
    const char* why = why_not_asked(node);
    std::string text = why != nullptr ? why : "";
    const Inquiry::Said said = why == nullptr ? said_by(node.info.address) : Inquiry::Said();
    if (why == nullptr && !said.all) text = kNoAnswer;
    for (const std::string& state : said.states)
      if (state != cli::kStateDone) text = state;
    const bool done = text.empty();
    say_({{"event", "directories"},
          {"node", node.info.address},
          {"set", done ? static_cast<size_t>(count) - said.problems.size() : 0},
          {"failed", encode_texts(said.problems)},
          {"good", why != nullptr || (done && (said.problems.empty() || links_stay))},
          {"text", text}});
  }
}

// --- Names that the lead does not have ---

void AfterPush::mirror_line(uint32_t node, const std::vector<std::string>& names,
                            const std::string& text) {
  Json list = Json::array();
  for (const std::string& name : names) list.push_back(cli::encode_base64(name));
  say_({{"event", "mirror"},
        {"node", node},
        {"names", list},
        {"good", text.empty()},
        {"text", text}});
}

void AfterPush::begin_listing() {
  if (!push_.tree.mirror) return;
  std::vector<lead::NodeInfo> asked;
  for (const Node& node : nodes_)
    if (node.complete && why_not_asked(node) == nullptr) asked.push_back(node.info);
  ask(list_questions(push_.tree, push_.request.files, push_.request.location), asked);
}

void AfterPush::tell_listing() {
  if (!push_.tree.mirror) return;
  for (const lead::PushNodeReport& node : report_.nodes)
    if (!node.heard || node.silent)
      mirror_line(node.address, {}, node.heard ? "silent" : "never heard");
  for (const Node& node : nodes_) {
    const uint32_t address = node.info.address;
    const char* why =
        node.complete ? why_not_asked(node) : "it does not have every file of the push";
    if (why != nullptr || inquiries_.empty()) {
      mirror_line(address, {}, why != nullptr ? why : kNoAnswer);
      continue;
    }
    const Inquiry::Said said = said_by(address);
    std::string text = said.all ? "" : kNoAnswer;
    for (const std::string& state : said.states)
      if (state != cli::kStateDone) text = state;
    for (const cli::NamedText& problem : said.problems)
      if (push_.tree.filter.takes(problem.name)) text = problem.name + ": " + problem.text;
    if (text.empty()) going_[address] = names_to_remove(said.names, push_.tree.filter);
    mirror_line(address, text.empty() ? going_[address] : std::vector<std::string>(), text);
  }
}

// Nodes with the same names are asked together.
void AfterPush::begin_removing() {
  if (push_.tree.only_list) return;
  std::map<std::vector<std::string>, std::vector<lead::NodeInfo>> together;
  for (const Node& node : nodes_)
    if (const auto found = going_.find(node.info.address); found != going_.end())
      together[found->second].push_back(node.info);
  for (auto& [names, nodes] : together) ask(remove_questions(names, push_.request.location), nodes);
}

void AfterPush::tell_removing() {
  for (const auto& inquiry : inquiries_)
    for (const auto& [node, said] : inquiry->said()) {
      const std::vector<std::string>& names = going_.at(node);
      std::vector<cli::NamedText> failed;
      for (size_t i = 0; i < names.size(); ++i) {
        const std::string state = i < said.states.size() ? said.states[i] : kNoAnswer;
        if (state != cli::kStateAbsent) failed.push_back({names[i], state});
      }
      say_({{"event", "mirrored"},
            {"node", node},
            {"removed", names.size() - failed.size()},
            {"failed", encode_texts(failed)}});
    }
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
