#include "control_request.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cli_common.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;
using Kind = lead::MessageKind;

constexpr const char* kDeleted = "deleted";
constexpr const char* kNotSaid = "acknowledged; its program does not say more";
constexpr const char* kNoAnswerInTime = "no answer about it in time";
constexpr const char* kAnswered = "answered";
constexpr const char* kNoFile = "no such file";
constexpr const char* kNotBrought = "no such file; the push that runs leaves it out";
constexpr const char* kNoTransaction = "no such transaction under way";

}  // namespace

ControlRequest::ControlRequest(std::shared_ptr<cli::LineClient> client, Request request,
                               lead::Lead& lead, NodePrograms& programs, Reporter& reporter)
    : client_(std::move(client)),
      request_(std::move(request)),
      lead_(lead),
      programs_(programs),
      reporter_(reporter) {}

bool ControlRequest::asks_first() const {
  if (request_.kind == Kind::kDelete) return true;
  return request_.kind == Kind::kCancel && request_.transaction != lead_.push_transaction();
}

uint32_t ControlRequest::ask(cli::NodeQuestion::Kind kind, const std::vector<std::string>& names,
                             lead::Time now) {
  cli::NodeQuestion question;
  question.kind = kind;
  question.location = request_.location;
  question.names = names;
  question.transaction = request_.transaction;
  return programs_.ask(std::move(question), nodes_, now, request_.timeout());
}

void ControlRequest::start(lead::Time now) {
  client_->begin();
  for (const lead::Lead::NodeView& node : lead_.nodes())
    if (!node.silent && request_.audience.includes(node.info.address, node.info.card_class))
      nodes_.push_back(node.info);
  // What a running push still brings is deleted before it stands anywhere.
  if (request_.kind == Kind::kDelete)
    for (size_t i = 0; i < request_.names.size(); ++i)
      if (lead_.push_brings(request_.location, request_.names[i])) brought_.insert(i);
  if (asks_first())
    question_ = ask(request_.kind == Kind::kDelete ? cli::NodeQuestion::Kind::kFiles
                                                   : cli::NodeQuestion::Kind::kTransaction,
                    request_.names, now);
  if (question_ == 0) send(now);
}

void ControlRequest::run(lead::Time now) {
  if (client_->gone() && step_ != Step::kEnded) {
    step_ = Step::kEnded;
    return;
  }
  // An answer may have come that lets the next step begin at once.
  for (Step before = Step::kEnded; step_ != before && step_ != Step::kEnded;) {
    before = step_;
    advance(now);
  }
}

void ControlRequest::advance(lead::Time now) {
  if (step_ == Step::kSent) {
    if (lead_.message_report(id_).finished) check(now);
    return;
  }
  if (!programs_.answered(question_, now)) return;
  States answers;
  for (auto& [node, answer] : programs_.take_answers(question_))
    answers[node] = std::move(answer.states);
  if (step_ == Step::kAsking) {
    before_ = std::move(answers);
    on_asked(now);
  } else if (step_ == Step::kRemoving) {
    for (const auto& [node, states] : answers)
      for (size_t i = 0; i < std::min(states.size(), removing_.size()); ++i)
        removed_[node][removing_[i]] = states[i];
    send(now);
  } else {
    after_ = std::move(answers);
    finish();
  }
}

// --- Its steps ---

bool ControlRequest::some_node_says(size_t name, const std::string& state) const {
  return std::any_of(before_.begin(), before_.end(), [&](const auto& entry) {
    return name < entry.second.size() && entry.second[name] == state;
  });
}

bool ControlRequest::some_node_has(size_t name) const {
  return some_node_says(name, cli::kStateFile) || some_node_says(name, cli::kStateDirectory);
}

bool ControlRequest::all_were_asked() const {
  return !before_.empty() && std::all_of(nodes_.begin(), nodes_.end(), [&](const auto& node) {
    const auto found = before_.find(node.address);
    return found != before_.end() && !found->second.empty();
  });
}

void ControlRequest::on_asked(lead::Time now) {
  if (request_.kind == Kind::kDelete && request_.recursive) {
    for (size_t i = 0; i < request_.names.size(); ++i)
      if (some_node_says(i, cli::kStateDirectory)) removing_.push_back(request_.names[i]);
    if (!removing_.empty()) {
      question_ = ask(cli::NodeQuestion::Kind::kRemove, removing_, now);
      step_ = Step::kRemoving;
      return;
    }
  }
  send(now);
}

void ControlRequest::send(lead::Time now) {
  const lead::Time limit = request_.timeout();
  if (request_.kind == Kind::kMessage) {
    id_ = lead_.send_message(request_.msg_class, request_.bytes, request_.audience, now, limit);
  } else if (request_.kind == Kind::kCancel) {
    if (all_were_asked() && !some_node_says(0, cli::kStateOpen)) return finish();
    id_ = lead_.cancel_transaction(request_.transaction, request_.audience, now, limit);
  } else {
    std::vector<std::string> names;
    for (size_t i = 0; i < request_.names.size(); ++i)
      if (!all_were_asked() || some_node_says(i, cli::kStateFile) || brought_.contains(i))
        names.push_back(request_.names[i]);
    if (names.empty()) return finish();
    id_ = lead_.delete_files(request_.location, names, request_.audience, now, limit);
  }
  if (id_ == 0) throw std::runtime_error("the lead refuses the request");
  const size_t nodes = lead_.message_report(id_).nodes.size();
  reporter_.request_taken(id_, request_, nodes);
  client_->say({{"event", "sent"}, {"id", id_}, {"nodes", nodes}});
  step_ = Step::kSent;
}

// What is left of the files, when nodes have said what they had.
void ControlRequest::check(lead::Time now) {
  if (request_.kind == Kind::kDelete && !before_.empty())
    question_ = ask(cli::NodeQuestion::Kind::kFiles, request_.names, now);
  else
    question_ = 0;
  step_ = Step::kChecking;
  if (question_ == 0) finish();
}

// --- Its answer ---

std::string ControlRequest::outcome_of(uint32_t node, size_t name) const {
  const auto before = before_.find(node);
  if (before == before_.end()) return kNotSaid;
  if (name >= before->second.size()) return kNoAnswerInTime;
  const std::string& state = before->second[name];
  if (state == cli::kStateAbsent) return brought_.contains(name) ? kNotBrought : kNoFile;
  if (state == cli::kStateDirectory) {
    if (!request_.recursive) return "is a directory: --recursive deletes it";
    const auto removed = removed_.find(node);
    if (removed == removed_.end()) return kNoAnswerInTime;
    const auto found = removed->second.find(request_.names[name]);
    if (found == removed->second.end()) return kNoAnswerInTime;
    return found->second == cli::kStateAbsent ? kDeleted : found->second;
  }
  if (state != cli::kStateFile) return state;
  const auto after = after_.find(node);
  if (after == after_.end() || name >= after->second.size()) return kNoAnswerInTime;
  return after->second[name] == cli::kStateAbsent ? kDeleted : "is still there";
}

// A name that is on no node was not deleted anywhere; one that only some nodes had, was.
bool ControlRequest::worked(size_t name) const {
  if (before_.empty()) return true;
  if (all_were_asked() && !some_node_has(name) && !brought_.contains(name)) return false;
  return std::all_of(nodes_.begin(), nodes_.end(), [&](const lead::NodeInfo& node) {
    const std::string said = outcome_of(node.address, name);
    return said == kDeleted || said == kNoFile || said == kNotBrought || said == kNotSaid;
  });
}

Json ControlRequest::outcome(const lead::NodeInfo& node, bool acknowledged,
                             const std::string& reason) const {
  Json line{{"event", "outcome"},
            {"node", cli::format_address(node.address)},
            {"acknowledged", acknowledged},
            {"text", reason}};
  if (reason == kNoTransaction) line["cancelled"] = false;
  if (request_.kind != Kind::kDelete || !before_.contains(node.address)) return line;
  Json names = Json::array();
  size_t deleted = 0;
  for (size_t i = 0; i < request_.names.size(); ++i) {
    const std::string said = outcome_of(node.address, i);
    if (said == kDeleted)
      ++deleted;
    else
      names.push_back({{"name", request_.names[i]}, {"text", said}});
  }
  line["deleted"] = deleted;
  line["names"] = names;
  return line;
}

void ControlRequest::finish() {
  step_ = Step::kEnded;
  size_t acknowledged = 0, nodes = nodes_.size();
  bool complete = false;
  size_t deleted_on = 0;
  for (const lead::NodeInfo& node : nodes_)
    if (const auto host = programs_.hosts().find(node.address); host != programs_.hosts().end())
      client_->say({{"event", "host"}, {"node", node.address}, {"name", host->second}});
  const auto say_outcome = [&](const lead::NodeInfo& node, bool good, const std::string& reason) {
    const Json line = outcome(node, good, reason);
    deleted_on += line.value("deleted", size_t{0}) != 0;
    client_->say(line);
  };
  if (id_ != 0) {
    const lead::MessageReport report = lead_.message_report(id_);
    complete = report.complete();
    nodes = report.nodes.size();
    for (const lead::MessageNode& node : report.nodes) {
      const bool good = node.delivery == lead::Delivery::kAcknowledged;
      acknowledged += good;
      say_outcome(node.info, good, delivery_text(node.delivery));
    }
  } else {
    // Every node has answered, and there was nothing to send: what was to be deleted is not there
    // or is gone already, or the transaction is not under way.
    const bool cancel = request_.kind == Kind::kCancel;
    complete = !cancel;
    acknowledged = cancel ? 0 : nodes;
    for (const lead::NodeInfo& node : nodes_)
      say_outcome(node, !cancel, cancel ? kNoTransaction : kAnswered);
  }
  if (request_.kind == Kind::kDelete)
    for (size_t i = 0; i < request_.names.size(); ++i) complete = complete && worked(i);
  Json end{{"event", "done"},
           {"complete", complete},
           {"sent", id_ != 0},
           {"acknowledged", acknowledged},
           {"missing", nodes - acknowledged}};
  if (!before_.empty() && request_.kind == Kind::kDelete) end["deleted_on"] = deleted_on;
  client_->finish(end);
}

}  // namespace pkgdist::lead_program
