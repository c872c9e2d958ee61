#include "event_state.h"

#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "event_fields.h"

namespace pkgdist::lead_program {

namespace {

using ParsedJson = nlohmann::json;

// 0 for what is no address.
uint32_t address_in(const ParsedJson& event, const char* name) {
  try {
    return cli::parse_address(text(event, name));
  } catch (const CLI::Error&) {
    return 0;
  }
}

}  // namespace

NodeState& EventState::node(const ParsedJson& event) {
  const uint32_t address = address_in(event, "node");
  const auto [found, fresh] = places_.try_emplace(address, state_.nodes.size());
  if (fresh) {
    state_.nodes.emplace_back();
    state_.nodes.back().address = address;
    state_.nodes.back().heard = true;
  }
  return state_.nodes[found->second];
}

bool EventState::add(const std::string& line) {
  const ParsedJson event = ParsedJson::parse(line, nullptr, false);
  if (!event.is_object()) return false;
  const std::string name = text(event, "event");
  time_ = std::max(time_, number(event, "time"));
  if (name == "push-requested") {
    state_ = {};
    places_.clear();
    heard_.clear();
    names_.clear();
    finished_ = false;
  } else if (name == "push-started") {
    state_.transaction = static_cast<uint32_t>(count(event, "transaction"));
    state_.files = count(event, "files");
    state_.bytes = count(event, "bytes");
  } else if (name == "progress") {
    add_progress(event);
  } else if (name == "push-progress") {
    add_whole(event);
    return true;
  } else if (name == "push-finished") {
    add_summary(event);
    return true;
  } else if (name == "node-introduced") {
    name_node(node(event), text(event, "name"));
  } else if (name.starts_with("node-")) {
    NodeState& one = node(event);
    one.silent = name == "node-silent";
    one.deferred = name == "node-deferred";
    last_ = fmt::format("{} {}", text(event, "node"), name.substr(5));
    if (name != "node-silent") heard_[one.address] = time_;
  } else if (name == "error") {
    last_ = text(event, "text");
  }
  return false;
}

// Nodes of one name are called by their addresses.
void EventState::name_node(NodeState& node, const std::string& name) {
  if (node.name == name) return;
  node.name = names_.insert(name).second ? name : "";
  if (!node.name.empty()) return;
  for (NodeState& one : state_.nodes)
    if (one.name == name) one.name.clear();
}

void EventState::add_progress(const ParsedJson& event) {
  NodeState& one = node(event);
  one.bytes = count(event, "bytes");
  one.files_done = count(event, "files");
  one.files_failed = count(event, "failed");
  one.ended = one.files_done + one.files_failed >= count(event, "of_files");
  const double bytes = number(event, "of_bytes");
  one.share = one.ended ? 1 : bytes > 0 ? std::min(1.0, number(event, "bytes") / bytes) : 0;
  one.rate = number(event, "goodput_bits") / 8;
  one.repairs = count(event, "repairs");
  one.repair_ratio = number(event, "repair_ratio");
  const double since = number(event, "seconds_since_heard");
  if (since < kQuietSeconds)
    heard_.erase(one.address);
  else
    heard_[one.address] = time_ - since;
}

// A node that was quiet in its last event is so until there is another one.
void EventState::add_whole(const ParsedJson& event) {
  state_.seconds = number(event, "seconds");
  state_.nodes_in_all = count(event, "nodes");
  state_.nodes_done = count(event, "nodes_done");
  state_.rate_bits = number(event, "rate_bits");
  state_.repair_share = number(event, "repair_share");
  state_.segments_sent = count(event, "segments_sent");
  state_.repairs_sent = count(event, "repairs_sent");
  state_.seconds_left.reset();
  if (event.contains("eta_seconds") && event["eta_seconds"].is_number())
    state_.seconds_left = number(event, "eta_seconds");
  for (NodeState& one : state_.nodes) {
    const auto heard = heard_.find(one.address);
    one.seconds_since_heard = heard != heard_.end() ? std::max(0.0, time_ - heard->second) : 0;
  }
}

void EventState::add_summary(const ParsedJson& event) {
  finished_ = true;
  state_.seconds = number(event, "seconds");
  state_.seconds_left = 0;
  state_.nodes_done = 0;
  for (const ParsedJson& told : list(event, "nodes")) {
    NodeState& one = node(told);
    one.heard = text(told, "state") != "never heard";
    one.ended = count(told, "files_left") == 0;
    one.files_done = count(told, "files");
    one.files_failed = count(told, "files_failed");
    one.repairs = count(told, "repairs");
    if (one.ended) one.share = 1;
    state_.nodes_done += one.ended;
  }
  last_ = event.value("complete", false) ? "every node has every file" : "ended, not complete";
}

}  // namespace pkgdist::lead_program
