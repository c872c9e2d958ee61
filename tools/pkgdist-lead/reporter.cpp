#include "reporter.h"

#include <fmt/core.h>

#include <algorithm>

#include "cli_common.h"
#include "status_text.h"

namespace pkgdist::lead_program {

namespace {

using cli::format_address;
using cli::status_text;
using Json = nlohmann::ordered_json;

// Lines of the table of what is missing; the JSON summary has them all.
constexpr size_t kMaxMissingLines = 50;

double seconds(lead::Time from, lead::Time to) {
  return static_cast<double>(lead::elapsed(to, from)) / static_cast<double>(lead::kSecond);
}

std::string node_id_text(uint32_t id) {
  return fmt::format("{}/{}/{}", id >> 16 & 255, id >> 8 & 255, id & 255);
}

const char* state_of(const lead::PushNodeReport& node) {
  if (!node.heard) return "never heard";
  if (node.silent && !node.open.empty()) return "silent";
  if (!node.open.empty()) return "incomplete";
  return node.failed.empty() ? "complete" : "failed";
}

std::string why_open(const lead::PushNodeReport& node) {
  if (!node.heard) return "the node was never heard";
  return node.silent ? "the node fell silent" : "not ended when the push was stopped";
}

}  // namespace

std::string format_bytes(double bytes) {
  const char* unit = "B";
  for (const char* next : {"kB", "MB", "GB", "TB"}) {
    if (bytes < 1000) break;
    bytes /= 1000;
    unit = next;
  }
  return fmt::format("{:.{}f} {}", bytes, unit[0] == 'B' ? 0 : bytes < 10 ? 2 : 1, unit);
}

void Reporter::say(const std::string& line) {
  if (json_.enabled()) return;
  if (before_line) before_line();
  fmt::print("{}\n", line);
  if (after_line) after_line();
  std::fflush(stdout);
}

void Reporter::node_event(const char* event, const char* text, const lead::NodeInfo& node) {
  json_.print(event, Json{{"node", format_address(node.address)},
                          {"node_id", node_id_text(node.node_id)},
                          {"pid", node.pid},
                          {"card_class", node.card_class}});
  say(fmt::format("node {} ({}, process {}) {}", format_address(node.address),
                  node_id_text(node.node_id), node.pid, text));
}

void Reporter::node_appeared(const lead::NodeInfo& node) {
  node_event("node-appeared", "appeared", node);
}

void Reporter::node_restarted(const lead::NodeInfo& node) {
  node_event("node-restarted", "was restarted", node);
}

void Reporter::node_silent(const lead::NodeInfo& node) {
  node_event("node-silent", "has fallen silent", node);
}

void Reporter::node_returned(const lead::NodeInfo& node) {
  node_event("node-returned", "is back", node);
}

void Reporter::push_started(uint32_t transaction, uint64_t files, uint64_t bytes, uint32_t nodes) {
  json_.print(
      "push-started",
      Json{{"transaction", transaction}, {"files", files}, {"bytes", bytes}, {"nodes", nodes}});
  say(fmt::format("transaction {}: pushing {} files, {}, to {} nodes", transaction, files,
                  format_bytes(static_cast<double>(bytes)), nodes));
}

void Reporter::file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                          bool skipped) {
  json_.print("file", Json{{"node", format_address(node.address)},
                           {"name", name},
                           {"status", status},
                           {"text", status_text(status)},
                           {"skipped", skipped}});
  if (status != 0)
    say(fmt::format("{}: {} failed: {}", format_address(node.address), name, status_text(status)));
  else if (verbosity_ > 0)
    say(fmt::format("{}: {} {}", format_address(node.address), name,
                    skipped ? "present already" : "received"));
}

void Reporter::file_requested(const lead::NodeInfo& node, uint32_t location,
                              const std::string& name, uint64_t status) {
  json_.print("requested", Json{{"node", format_address(node.address)},
                                {"location", location},
                                {"name", name},
                                {"status", status}});
  say(fmt::format("{} asks for {} of location {}{}", format_address(node.address), name, location,
                  status != 0 ? ": " + status_text(status) : std::string()));
}

void Reporter::request_ended(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                             uint64_t status) {
  json_.print("request-ended", Json{{"node", format_address(node.address)},
                                    {"location", location},
                                    {"name", name},
                                    {"status", status},
                                    {"text", status_text(status)}});
  say(fmt::format("{}: {} of location {}: {}", format_address(node.address), name, location,
                  status_text(status)));
}

// --- Messages ---

void Reporter::message_received(const lead::NodeInfo& node, uint32_t msg_class,
                                std::span<const uint8_t> bytes) {
  json_.print(
      "message",
      Json{{"node", format_address(node.address)}, {"class", msg_class}, {"size", bytes.size()}});
  say(fmt::format("{}: message of class {}, {} bytes", format_address(node.address), msg_class,
                  bytes.size()));
  if (on_message) on_message(node, msg_class, bytes);
}

void Reporter::request_taken(lead::MessageId id, const Request& request, size_t nodes) {
  Json fields{{"id", id}, {"nodes", nodes}};
  std::string what;
  if (request.kind == lead::MessageKind::kMessage) {
    fields.update(Json{{"class", request.msg_class}, {"size", request.bytes.size()}});
    what = fmt::format("of class {}, {} bytes", request.msg_class, request.bytes.size());
  } else if (request.kind == lead::MessageKind::kCancel) {
    fields["transaction"] = request.transaction;
    what = fmt::format("of transaction {}", request.transaction);
  } else {
    fields.update(Json{{"location", request.location}, {"names", request.names}});
    what = fmt::format("of {} names in location {}", request.names.size(), request.location);
  }
  json_.print(fmt::format("{}-sent", kind_text(request.kind)), fields);
  say(fmt::format("{} {}: {}, to {} nodes", kind_text(request.kind), id, what, nodes));
}

void Reporter::message_outcome(const lead::NodeInfo& node, lead::MessageId id,
                               lead::Delivery delivery) {
  const bool good = delivery == lead::Delivery::kAcknowledged;
  json_.print("message-outcome", Json{{"id", id},
                                      {"node", format_address(node.address)},
                                      {"acknowledged", good},
                                      {"reason", delivery_text(delivery)}});
  if (!good || verbosity_ > 0)
    say(fmt::format("message {}: {}: {}", id, format_address(node.address),
                    delivery_text(delivery)));
}

void Reporter::message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) {
  message_outcome(node, id, lead::Delivery::kAcknowledged);
}

void Reporter::message_missed(const lead::NodeInfo& node, lead::MessageId id, lead::Delivery why) {
  message_outcome(node, id, why);
}

void Reporter::message_finished(const lead::MessageReport& report) {
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
  say(fmt::format("another lead is heard: {} (process {}), {} datagrams", format_address(address),
                  pid, datagrams));
}

void Reporter::error(const std::string& text) {
  json_.print("error", Json{{"text", text}});
  fmt::print(stderr, "pkgdist-lead: {}\n", text);
}

// --- Pushes ---

void Reporter::progress(const lead::PushReport& report, uint64_t rate_bits, lead::Time now) {
  for (const lead::PushNodeReport& node : report.nodes) {
    json_.print("progress", Json{{"node", format_address(node.address)},
                                 {"files", node.files_done},
                                 {"of_files", report.files},
                                 {"bytes", node.bytes_done + node.bytes_in_transfer},
                                 {"of_bytes", report.bytes},
                                 {"repairs", node.repairs},
                                 {"rate_bits", rate_bits}});
    if (json_.enabled() || node.finished_at != 0) continue;
    say(fmt::format("{:6.1f} s  {}  {} of {} files, {} of {}, {} repairs",
                    seconds(report.started_at, now), format_address(node.address), node.files_done,
                    report.files,
                    format_bytes(static_cast<double>(node.bytes_done + node.bytes_in_transfer)),
                    format_bytes(static_cast<double>(report.bytes)), node.repairs));
  }
}

void Reporter::table(const lead::PushReport& report) {
  say(fmt::format("{:<16}{:<12}{:>8}{:>9}{:>12}{:>9}{:>10}{:>10}  {}", "node", "id", "files",
                  "present", "bytes", "seconds", "MB/s", "repairs", "state"));
  for (const lead::PushNodeReport& node : report.nodes) {
    const lead::Time end = node.finished_at != 0 ? node.finished_at : report.finished_at;
    const double duration = seconds(report.started_at, end);
    const double rate = duration > 0 ? static_cast<double>(node.bytes_done) / duration / 1e6 : 0;
    say(fmt::format("{:<16}{:<12}{:>8}{:>9}{:>12}{:>9.2f}{:>10.1f}{:>10}  {}",
                    format_address(node.address), node_id_text(node.node_id), node.files_done,
                    node.files_skipped, format_bytes(static_cast<double>(node.bytes_done)),
                    duration, rate, node.repairs, state_of(node)));
  }
}

void Reporter::missing(const lead::PushReport& report, const lead::PushRequest& request) {
  size_t lines = 0;
  const auto line = [&](const lead::PushNodeReport& node, const std::string& name,
                        const std::string& why) {
    if (lines++ < kMaxMissingLines)
      say(fmt::format("{:<16}{:<40}  {}", format_address(node.address), name, why));
  };
  if (report.nodes.size() < report.expected_nodes)
    say(fmt::format("{} of {} nodes never appeared", report.expected_nodes - report.nodes.size(),
                    report.expected_nodes));
  if (!report.nodes.empty()) say("missing:");
  for (const lead::PushNodeReport& node : report.nodes) {
    for (const auto& [file, status] : node.failed)
      line(node, request.files[file].name, status_text(status));
    if (!node.heard) line(node, "every file", why_open(node));
    for (uint32_t file : node.open) line(node, request.files[file].name, why_open(node));
  }
  if (lines > kMaxMissingLines) say(fmt::format("and {} more", lines - kMaxMissingLines));
}

void Reporter::summary(const lead::PushReport& report, const lead::PushRequest& request) {
  Json nodes = Json::array();
  for (const lead::PushNodeReport& node : report.nodes) {
    Json failed = Json::array();
    for (const auto& [file, status] : node.failed)
      failed.push_back(
          {{"name", request.files[file].name}, {"status", status}, {"text", status_text(status)}});
    Json open = Json::array();
    for (uint32_t file : node.open) open.push_back(request.files[file].name);
    const lead::Time end = node.finished_at != 0 ? node.finished_at : report.finished_at;
    nodes.push_back({{"node", format_address(node.address)},
                     {"node_id", node_id_text(node.node_id)},
                     {"state", state_of(node)},
                     {"files", node.files_done},
                     {"present", node.files_skipped},
                     {"bytes", node.bytes_done},
                     {"seconds", seconds(report.started_at, end)},
                     {"repairs", node.repairs},
                     {"failed", failed},
                     {"open", open}});
  }
  json_.print("push-finished", Json{{"complete", report.complete()},
                                    {"files", report.files},
                                    {"bytes", report.bytes},
                                    {"seconds", seconds(report.started_at, report.finished_at)},
                                    {"expected_nodes", report.expected_nodes},
                                    {"nodes", nodes}});
  if (json_.enabled()) return;
  table(report);
  if (!report.complete()) missing(report, request);
}

}  // namespace pkgdist::lead_program
