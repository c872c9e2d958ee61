#include "reporter.h"

#include <fmt/core.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "counted.h"
#include "printable.h"
#include "status_text.h"

namespace pkgdist::lead_program {

namespace {

using cli::counted;
using cli::format_address;
using cli::status_text;
using Json = nlohmann::ordered_json;

}  // namespace

std::string node_id_text(uint32_t id) {
  return fmt::format("{}/{}/{}", id >> 16 & 255, id >> 8 & 255, id & 255);
}

Json locations_of(const cli::Introduction& introduction) {
  Json places = Json::array();
  for (const cli::Introduction::Place& place : introduction.places) {
    places.push_back({{"location", place.location},
                      {"memory", place.memory},
                      {"free", place.free_bytes ? Json(*place.free_bytes) : Json()}});
    if (place.releases) places.back()["releases"] = *place.releases;
  }
  return places;
}

std::string format_bits(double bits) {
  return fmt::format("{:.1f} Mbit/s", bits / 1e6);
}

std::string format_duration(double seconds) {
  const auto whole = static_cast<uint64_t>(std::llround(seconds));
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
  return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
}

std::string format_bytes(double bytes) {
  const char* unit = "B";
  for (const char* next : {"kB", "MB", "GB", "TB"}) {
    if (bytes < 1000) break;
    bytes /= 1000;
    unit = next;
  }
  return fmt::format("{:.{}f} {}", bytes, unit[0] == 'B' ? 0 : bytes < 10 ? 2 : 1, unit);
}

std::string Reporter::label(uint32_t address) const {
  if (const auto found = names.find(address); found != names.end()) return found->second;
  const auto host = hosts_.find(address);
  const bool single = host != hosts_.end() && host_counts_.at(host->second) == 1;
  return single ? host->second : format_address(address);
}

void Reporter::set_host(uint32_t address, const std::string& host) {
  constexpr size_t kMaxHosts = 8192, kMaxName = 64;
  const auto is_good = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_';
  };
  if (host.empty() || host == "localhost" || host.size() > kMaxName ||
      !std::all_of(host.begin(), host.end(), is_good))
    return;
  if (hosts_.size() >= kMaxHosts && !hosts_.contains(address)) return;
  std::string& known = hosts_[address];
  if (known == host) return;
  if (!known.empty()) --host_counts_[known];
  known = host;
  ++host_counts_[host];
}

// Numbers in names and addresses by their value: node9 before node10.
void Reporter::sort_by_name(std::vector<lead::PushNodeReport>& nodes) const {
  std::stable_sort(nodes.begin(), nodes.end(), [this](const auto& a, const auto& b) {
    return ::strverscmp(label(a.address).c_str(), label(b.address).c_str()) < 0;
  });
}

void Reporter::say(const std::string& line, cli::Output::Kind kind) {
  if (json_.enabled() || (quiet && kind != cli::Output::Kind::kResult)) return;
  if (takes_line) return takes_line(line);
  const std::string before = before_line ? before_line() : "";
  cli::standard_output().write(before + cli::printable(line) + '\n', kind);
}

// The display is on standard output: the text waits a moment until it is off the screen.
void Reporter::clear_progress() {
  cli::Output& out = cli::standard_output();
  out.write(before_line(), cli::Output::Kind::kResult);
  int patience = 5;
  (void)out.wait_written([&] { return --patience == 0; });
}

void Reporter::node_event(const char* event, const char* text, const lead::NodeInfo& node) {
  json_.print(event, Json{{"node", format_address(node.address)},
                          {"node_id", node_id_text(node.node_id)},
                          {"pid", node.pid},
                          {"card_class", node.card_class}});
  say(fmt::format("node {} ({}, process {}) {}", label(node.address), node_id_text(node.node_id),
                  node.pid, text));
}

void Reporter::node_appeared(const lead::NodeInfo& node) {
  node_event("node-appeared", "appeared", node);
}

void Reporter::node_restarted(const lead::NodeInfo& node) {
  node_event("node-restarted", "was restarted", node);
}

void Reporter::address_shared(const lead::NodeInfo& node, uint32_t other_pid) {
  json_.print(
      "address-shared",
      Json{{"node", format_address(node.address)}, {"pid", node.pid}, {"other_pid", other_pid}});
  say(fmt::format("node {}: two hosts have this address (processes {} and {} have both answered)",
                  format_address(node.address), node.pid, other_pid));
}

void Reporter::node_silent(const lead::NodeInfo& node) {
  node_event("node-silent", "has fallen silent", node);
}

void Reporter::node_returned(const lead::NodeInfo& node) {
  node_event("node-returned", "is back", node);
}

void Reporter::node_deferred(const lead::NodeInfo& node) {
  node_event("node-deferred", "is slow: it gets the rest after the others", node);
}

void Reporter::push_started(uint32_t transaction, uint64_t files, uint64_t bytes, uint32_t nodes) {
  json_.print(
      "push-started",
      Json{{"transaction", transaction}, {"files", files}, {"bytes", bytes}, {"nodes", nodes}});
  say(fmt::format("transaction {}: pushing {}, {}, to {}", transaction, counted(files, "file"),
                  format_bytes(static_cast<double>(bytes)), counted(nodes, "node")));
}

void Reporter::file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                          bool skipped) {
  if (json_.enabled())  // of every file: not even put together when nobody reads it
    json_.print("file", Json{{"node", format_address(node.address)},
                             {"name", name},
                             {"status", status},
                             {"text", status_text(status)},
                             {"skipped", skipped}});
  if (status != 0)
    say(fmt::format("{}: {} failed: {}", label(node.address), name, status_text(status)));
  else if (verbosity_ > 0)
    say(fmt::format("{}: {} {}", label(node.address), name,
                    skipped ? "present already" : "received"));
}

void Reporter::file_requested(const lead::NodeInfo& node, uint32_t location,
                              const std::string& name, uint64_t status) {
  json_.print("requested", Json{{"node", format_address(node.address)},
                                {"location", location},
                                {"name", name},
                                {"status", status}});
  say(fmt::format("{} asks for {} of location {}{}", label(node.address), name, location,
                  status != 0 ? ": " + status_text(status) : std::string()));
}

void Reporter::request_ended(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                             uint64_t status) {
  json_.print("request-ended", Json{{"node", format_address(node.address)},
                                    {"location", location},
                                    {"name", name},
                                    {"status", status},
                                    {"text", status_text(status)}});
  say(fmt::format("{}: {} of location {}: {}", label(node.address), name, location,
                  status_text(status)));
}

// --- Messages ---

void Reporter::message_received(const lead::NodeInfo& node, uint32_t msg_class,
                                std::span<const uint8_t> bytes) {
  if (takes_message && takes_message(node, msg_class, bytes)) return;
  json_.print(
      "message",
      Json{{"node", format_address(node.address)}, {"class", msg_class}, {"size", bytes.size()}});
  say(fmt::format("{}: message of class {}, {}", label(node.address), msg_class,
                  counted(bytes.size(), "byte")));
  if (on_message) on_message(node, msg_class, bytes);
}

void Reporter::request_taken(lead::MessageId id, const Request& request, size_t nodes) {
  Json fields{{"id", id}, {"nodes", nodes}};
  std::string what;
  if (request.kind == lead::MessageKind::kMessage) {
    fields.update(Json{{"class", request.msg_class}, {"size", request.bytes.size()}});
    what = fmt::format("of class {}, {}", request.msg_class, counted(request.bytes.size(), "byte"));
  } else if (request.kind == lead::MessageKind::kCancel) {
    fields["transaction"] = request.transaction;
    what = fmt::format("of transaction {}", request.transaction);
  } else {
    fields.update(Json{{"location", request.location}, {"names", request.names}});
    what = fmt::format("of {} in location {}", counted(request.names.size(), "name"),
                       request.location);
  }
  json_.print(fmt::format("{}-sent", kind_text(request.kind)), fields);
  say(fmt::format("{} {}: {}, to {}", kind_text(request.kind), id, what, counted(nodes, "node")));
}

void Reporter::message_outcome(const lead::NodeInfo& node, lead::MessageId id,
                               lead::Delivery delivery) {
  if (hides_message && hides_message(id)) return;
  const bool good = delivery == lead::Delivery::kAcknowledged;
  json_.print("message-outcome", Json{{"id", id},
                                      {"node", format_address(node.address)},
                                      {"acknowledged", good},
                                      {"text", delivery_text(delivery)}});
  if (!good || verbosity_ > 0)
    say(fmt::format("message {}: {}: {}", id, label(node.address), delivery_text(delivery)));
}

void Reporter::message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) {
  message_outcome(node, id, lead::Delivery::kAcknowledged);
}

void Reporter::message_missed(const lead::NodeInfo& node, lead::MessageId id, lead::Delivery why) {
  message_outcome(node, id, why);
}

void Reporter::message_finished(const lead::MessageReport& report) {
  if (hides_message && hides_message(report.id)) return;
  const auto acknowledged = std::count_if(
      report.nodes.begin(), report.nodes.end(),
      [](const auto& node) { return node.delivery == lead::Delivery::kAcknowledged; });
  json_.print("message-finished", Json{{"id", report.id},
                                       {"kind", kind_text(report.kind)},
                                       {"complete", report.complete()},
                                       {"acknowledged", acknowledged},
                                       {"nodes", report.nodes.size()}});
  say(fmt::format("{} {}: {} of {} nodes acknowledged", kind_text(report.kind), report.id,
                  acknowledged, report.nodes.size()));
}

void Reporter::push_queued(uint32_t number, const std::vector<std::string>& before) {
  json_.print("push-queued", Json{{"number", number}, {"before", before}});
  std::string ahead;
  for (const std::string& name : before) ahead += (ahead.empty() ? "" : ", ") + name;
  if (!before.empty()) say(fmt::format("push {} waits for the end of {}", number, ahead));
}

// --- The programs of nodes ---

void Reporter::node_introduced(const lead::NodeInfo& node, const cli::Introduction& introduction) {
  std::string text;
  for (const cli::Introduction::Place& place : introduction.places) {
    text += fmt::format(
        "{}location {}{}", text.empty() ? "" : ", ", place.location,
        place.free_bytes
            ? fmt::format(" ({} free)", format_bytes(static_cast<double>(*place.free_bytes)))
            : std::string());
  }
  set_host(node.address, introduction.host);
  json_.print("node-introduced", Json{{"node", format_address(node.address)},
                                      {"name", introduction.host},
                                      {"version", introduction.version},
                                      {"locations", locations_of(introduction)}});
  if (verbosity_ > 0)
    say(fmt::format("node {} is {}, version {}, {}", label(node.address), introduction.host,
                    introduction.version, text));
}

void Reporter::location_missing(uint32_t node, uint32_t location) {
  json_.print("location-missing", Json{{"node", format_address(node)}, {"location", location}},
              cli::Output::Kind::kResult);
  say(fmt::format("node {} has no location {}", label(node), location), cli::Output::Kind::kResult);
}

// --- Other leads ---

void Reporter::role_changed(lead::Role role, uint32_t other) {
  const char* name = role == lead::Role::kLeading      ? "leading"
                     : role == lead::Role::kStandingBy ? "standing-by"
                                                       : "listening";
  Json fields{{"role", name}};
  if (other != 0) fields["other"] = format_address(other);
  json_.print("role", fields);
  if (role == lead::Role::kStandingBy)
    say(other != 0 ? fmt::format("standing by: {} leads", format_address(other)) : "standing by");
  else if (role == lead::Role::kLeading)
    say(other != 0 ? fmt::format("leading: {} is silent", format_address(other)) : "leading");
}

void Reporter::other_lead_heard(uint32_t address, uint32_t pid, uint64_t datagrams) {
  json_.print("other-lead",
              Json{{"other", format_address(address)}, {"pid", pid}, {"datagrams", datagrams}});
  say(fmt::format("another lead is heard: {} (process {}), {}", format_address(address), pid,
                  counted(datagrams, "datagram")));
}

void Reporter::sender_mismatch(uint32_t named, uint32_t from, uint64_t datagrams) {
  json_.print("sender-mismatch", Json{{"named", format_address(named)},
                                      {"from", format_address(from)},
                                      {"datagrams", datagrams}});
  say(
      fmt::format("dropped: a datagram from {} that names {} as its sender, {} so far; nodes that "
                  "send from several addresses need --multi-homed",
                  format_address(from), format_address(named), datagrams));
}

// --- This host ---

void Reporter::interface_changed(const cli::InterfaceChange& change) {
  json_.print("interface", Json{{"address", format_address(change.address)},
                                {"interface", change.now.name},
                                {"state", change.state()}});
  complain(change.text());
}

void Reporter::complain(const std::string& text) {
  if (takes_line) return takes_line(text);
  if (before_line) clear_progress();
  cli::complain(text);
}

void Reporter::error(const std::string& text) {
  json_.print("error", Json{{"text", text}});
  complain(text);
}

}  // namespace pkgdist::lead_program
