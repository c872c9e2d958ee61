#include "lead_events.h"

#include <nlohmann/json.hpp>

#include "base64.h"

namespace pkgdist::lead_program {

namespace {

constexpr auto kEvent = cli::Output::Kind::kEvent;

}  // namespace

void EventTee::say(const char* what, const lead::NodeInfo& node) {
  say(what, node, Json::object());
}

void EventTee::say(const char* what, const lead::NodeInfo& node, const Json& more) {
  if (!client_) return;
  Json line{{"event", what}, {"node", encode_node(node)}};
  line.update(more);
  client_->say(line, kEvent);
}

void EventTee::location_missing(uint32_t node, uint32_t location) {
  if (client_)
    client_->say({{"event", "location-missing"}, {"node", node}, {"location", location}});
}

void EventTee::node_appeared(const lead::NodeInfo& node) {
  own_.node_appeared(node);
  say("appeared", node);
}

void EventTee::node_restarted(const lead::NodeInfo& node) {
  own_.node_restarted(node);
  say("restarted", node);
}

void EventTee::address_shared(const lead::NodeInfo& node, uint32_t other_pid) {
  own_.address_shared(node, other_pid);
  say("shared", node, {{"pid", other_pid}});
}

void EventTee::node_silent(const lead::NodeInfo& node) {
  own_.node_silent(node);
  say("silent", node);
}

void EventTee::node_returned(const lead::NodeInfo& node) {
  own_.node_returned(node);
  say("returned", node);
}

void EventTee::node_deferred(const lead::NodeInfo& node) {
  own_.node_deferred(node);
  say("deferred", node);
}

void EventTee::push_started(uint32_t transaction, uint64_t files, uint64_t bytes, uint32_t nodes) {
  own_.push_started(transaction, files, bytes, nodes);
  if (client_)
    client_->say({{"event", "started"},
                  {"transaction", transaction},
                  {"files", files},
                  {"bytes", bytes},
                  {"nodes", nodes}},
                 kEvent);
}

void EventTee::file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                          bool skipped) {
  own_.file_ended(node, name, status, skipped);
  say("file", node, {{"name", cli::encode_base64(name)}, {"status", status}, {"skipped", skipped}});
}

void EventTee::role_changed(lead::Role role, uint32_t other) {
  own_.role_changed(role, other);
  if (client_)
    client_->say({{"event", "role"}, {"role", static_cast<unsigned>(role)}, {"other", other}},
                 kEvent);
}

bool replay_event(const Json& line, lead::Events& events) {
  const std::string what = line.value("event", "");
  if (what == "started") {
    events.push_started(line.at("transaction"), line.at("files"), line.at("bytes"),
                        line.at("nodes"));
    return true;
  }
  if (what == "role") {
    events.role_changed(static_cast<lead::Role>(line.at("role").get<unsigned>()), line.at("other"));
    return true;
  }
  using Tell = void (lead::Events::*)(const lead::NodeInfo&);
  static const std::map<std::string, Tell> simple{
      {"appeared", &lead::Events::node_appeared}, {"restarted", &lead::Events::node_restarted},
      {"silent", &lead::Events::node_silent},     {"returned", &lead::Events::node_returned},
      {"deferred", &lead::Events::node_deferred},
  };
  if (const auto found = simple.find(what); found != simple.end()) {
    (events.*found->second)(decode_node(line.at("node")));
  } else if (what == "shared") {
    events.address_shared(decode_node(line.at("node")), line.at("pid"));
  } else if (what == "file") {
    events.file_ended(decode_node(line.at("node")),
                      cli::decode_base64_text(line.at("name").get<std::string>()),
                      line.at("status"), line.at("skipped"));
  } else {
    return false;
  }
  return true;
}

}  // namespace pkgdist::lead_program
