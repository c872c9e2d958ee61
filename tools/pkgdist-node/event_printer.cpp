#include "event_printer.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "counted.h"
#include "last_error.h"
#include "pkgdist/statistics.h"
#include "release_report.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;
using Kind = cli::Output::Kind;

constexpr size_t kMaxRefused = 65'536;  // names that are remembered; of more nothing is said

EventPrinter& printer(void* ctx) {
  return *static_cast<EventPrinter*>(ctx);
}

void on_lead_change(uint32_t lead, uint32_t pid, bool failover, void* ctx) {
  printer(ctx).lead_changed(lead, pid, failover);
}
void on_start(uint64_t, const char* const* paths, uint32_t count, uint32_t, uint32_t location,
              uint32_t xact_id, void* ctx) {
  for (uint32_t i = 0; i < count; ++i) printer(ctx).partial_files().note_listed(location, paths[i]);
  printer(ctx).transaction_started(xact_id, location, paths, count);
}
void on_file(uint64_t status, const char* path, uint32_t, uint32_t location, uint32_t xact_id,
             void* ctx) {
  printer(ctx).file_ended(status, path, location, xact_id);
}
void on_done(uint64_t status, uint32_t xact_id, void* ctx) {
  printer(ctx).transaction_done(status, xact_id);
}

std::string path_of(const cli::Location& location) {
  return location.memory ? location.path : std::filesystem::absolute(location.path).string();
}

template <class Entry>
uint32_t counter(const void* table, Entry entry) {
  constexpr size_t kRecordBytes = 20;
  if (table == nullptr) return 0;
  uint32_t value = 0;
  std::memcpy(&value, static_cast<const char*>(table) + kRecordBytes * static_cast<size_t>(entry),
              sizeof value);
  return value;
}

uint32_t counter(DrtCounter entry) {
  return counter(pkgdist_drt_ship_counter_hdl, entry);
}

uint32_t counter(CrtCounter entry) {
  return counter(pkgdist_crt_ship_counter_hdl, entry);
}

}  // namespace

nlohmann::ordered_json identity_fields(const NodeOptions& options) {
  const cli::CommonOptions& common = options.common;
  const std::array<uint32_t, 3> id = node_id_of(options);
  Json locations = Json::array();
  for (const auto& [number, location] : common.locations) {
    locations.push_back(
        {{"location", number}, {"path", path_of(location)}, {"memory", location.memory}});
    if (!options.releases.name.empty()) locations.back()["releases"] = options.releases.name;
  }
  return {{"address", cli::format_address(common.interface)},
          {"node_id", fmt::format("{}/{}/{}", id[0], id[1], id[2])},
          {"card_class", options.card_class},
          {"ctrl_group", cli::format_endpoint(common.ctrl_group)},
          {"data_group", cli::format_endpoint(common.data_group)},
          {"node_port", common.node_port},
          {"locations", locations}};
}

// The answers to a lead's questions are reports, too. A question is counted ahead of its answer,
// so what is read last is large enough.
uint32_t ends_reported() {
  const uint32_t reports = counter(DrtCounter::kUcSendDoneSent);
  const uint32_t questions = counter(DrtCounter::kMcMissDone);
  return reports - std::min(reports, questions);
}

uint64_t heard_about_files() {
  return uint64_t{counter(DrtCounter::kMcFileInfo)} + counter(DrtCounter::kMcSegment) +
         counter(DrtCounter::kMcSingleSegment) + counter(DrtCounter::kMcMissDone);
}

uint64_t heard_about_messages() {
  return uint64_t{counter(CrtCounter::kUcAckRecv)} + counter(CrtCounter::kUcNackRecv);
}

uint32_t repaired_segments() {
  return counter(DrtCounter::kMcSingleSegment);
}

void EventPrinter::attach(Node& node) {
  const levm_handle_t loop = node.loop();
  node.on_interface = [this](const cli::InterfaceChange& change) { interface_changed(change); };
  node.on_trouble = [this](const std::string& text) { error(text); };
  partial_files_ = &node.partial_files();
  storage_trouble_ = &node.storage_trouble();
  require(instcomm_pkgdist_ctrl_register_lead_change(loop, on_lead_change, this),
          "registering for lead changes");
  require(instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop, on_start, this),
          "attaching to transaction starts");
  require(instcomm_pkgdist_data_file_hdlr_attach(loop, on_file, this), "attaching to transfers");
  require(instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop, on_done, this),
          "attaching to transaction ends");
}

void EventPrinter::say(const std::string& line) const {
  if (json_.enabled()) return;
  cli::standard_output().line(line, Kind::kEvent);
}

void EventPrinter::listening(const NodeOptions& options) {
  const cli::CommonOptions& common = options.common;
  const std::array<uint32_t, 3> id = node_id_of(options);
  json_.print("listening", identity_fields(options));
  say(fmt::format("node {} ({}/{}/{}, card class {}) listens to {} and {}, and on port {}",
                  cli::format_address(common.interface), id[0], id[1], id[2], options.card_class,
                  cli::format_endpoint(common.ctrl_group), cli::format_endpoint(common.data_group),
                  common.node_port));
  if (!options.releases.name.empty())
    say(fmt::format("takes releases of '{}' and nothing else, installed in {}",
                    options.releases.name, options.releases.place));
  for (const auto& [number, location] : common.locations)
    say(fmt::format("location {}: {}{}", number,
                    location.memory ? "shared memory, names with " : "", path_of(location)));
}

void EventPrinter::lead_changed(uint32_t lead, uint32_t pid, bool failover) {
  lead_is_known_ = true;
  lead_ = lead;
  json_.print("lead-changed",
              Json{{"lead", cli::format_address(lead)}, {"pid", pid}, {"failover", failover}});
  say(fmt::format("lead {} (process {}){}", cli::format_address(lead), pid,
                  failover ? " has taken over" : ""));
  if (lead_talk_ != nullptr) lead_talk_->introduce();
}

void EventPrinter::transaction_started(uint32_t xact_id, uint32_t location,
                                       const char* const* paths, uint32_t count) {
  json_.print("transaction-start",
              Json{{"transaction", xact_id}, {"location", location}, {"files", count}});
  say(fmt::format("transaction {}: {} for location {}", xact_id, cli::counted(count, "file"),
                  location));
  if (lead_talk_ != nullptr) lead_talk_->transaction_started(xact_id);
  tell_refusals(xact_id, location, paths, count);
}

void EventPrinter::tell_refusals(uint32_t xact_id, uint32_t location, const char* const* paths,
                                 uint32_t count) {
  uint32_t refused = 0;
  std::string first;
  for (uint32_t i = 0; i < count; ++i) {
    const std::string why = storage_trouble_->refusal(location, paths[i]);
    // Lists come again and again while a lead waits for what is in them.
    if (why.empty() || refused_.size() >= kMaxRefused ||
        !refused_.emplace(location, paths[i]).second)
      continue;
    if (refused++ == 0) first = fmt::format("{}: {}", paths[i], why);
  }
  if (refused == 0) return;
  error(fmt::format("transaction {}: {} of {} files are not received, such as {}", xact_id, refused,
                    count, first));
}

void EventPrinter::file_ended(uint64_t status, const char* path, uint32_t location,
                              uint32_t xact_id) {
  // Before the partial file goes and makes room.
  const std::string text = storage_trouble_->text(location, path, status);
  partial_files_->on_ended(location, path, status);
  if (on_file_ended) on_file_ended(location, path, status == 0 ? "" : text);
  file_told(status, text, path, location, xact_id);
  if (status == 0 && on_file_complete) on_file_complete(xact_id, path);
}

void EventPrinter::file_told(uint64_t status, const std::string& text, const std::string& name,
                             uint32_t location, uint32_t xact_id) {
  Transaction& transaction = transactions_[xact_id];
  ++transaction.files;
  if (status != 0) ++transaction.failed;
  if (json_.enabled())  // of every file: not even put together when nobody reads it
    json_.print("file", Json{{"transaction", xact_id},
                             {"location", location},
                             {"name", name},
                             {"status", status},
                             {"text", text}});
  if (status != 0 || verbosity_ > 0)
    say(fmt::format("transaction {}: {}: {}", xact_id, name, text));
}

void EventPrinter::transaction_done(uint64_t status, uint32_t xact_id) {
  const Transaction transaction = transactions_[xact_id];
  transactions_.erase(xact_id);
  json_.print("transaction-done", Json{{"transaction", xact_id},
                                       {"status", status},
                                       {"files", transaction.files},
                                       {"failed", transaction.failed},
                                       {"repaired_segments", repaired_segments()}});
  say(fmt::format("transaction {} has ended: {}, {} failed", xact_id,
                  cli::counted(transaction.files, "file"), transaction.failed));
  if (lead_talk_ != nullptr) lead_talk_->transaction_ended(xact_id);
}

void EventPrinter::message(uint32_t message_class, uint64_t size) {
  json_.print("message", Json{{"class", message_class}, {"size", size}});
  say(fmt::format("message of class {}, {}", message_class, cli::counted(size, "byte")));
}

void EventPrinter::question(const char* what) {
  json_.print("question", Json{{"about", what}});
}

void EventPrinter::location_unset(uint32_t location) {
  json_.print("location-unset", Json{{"location", location}});
  error(
      fmt::format("the lead pushes to location {}, which is not set here: start the node with "
                  "--location {}=DIR",
                  location, location));
}

void EventPrinter::removed(uint32_t location, const std::vector<std::string>& names) {
  json_.print("removed", Json{{"location", location}, {"names", names}});
  say(fmt::format("location {}: {} removed that the lead does not have, such as {}", location,
                  cli::counted(names.size(), "name is", "names are"), names[0]));
}

void EventPrinter::compared(uint32_t location, const cli::NodeAnswer& answer) {
  Json again = Json::array(), failed = Json::array();
  for (const cli::NamedText& one : answer.names) again.push_back(one.name);
  for (const cli::NamedText& one : answer.problems)
    failed.push_back({{"name", one.name}, {"text", one.text}});
  json_.print("compared",
              Json{{"location", location}, {"received_again", again}, {"failed", failed}});
  for (const cli::NamedText& one : answer.names)
    say(fmt::format("location {}: {} had another content and was received again", location,
                    one.name));
  for (const cli::NamedText& one : answer.problems)
    say(fmt::format("location {}: {}: {}", location, one.name, one.text));
}

void EventPrinter::message_outcome(uint64_t status, const std::string& text) {
  json_.print("message-outcome", Json{{"status", status}, {"text", text}});
  say(fmt::format("message: {}", text));
}

void EventPrinter::interface_changed(const cli::InterfaceChange& change) {
  json_.print("interface", Json{{"address", cli::format_address(change.address)},
                                {"interface", change.now.name},
                                {"state", change.state()}});
  cli::complain(change.text());
}

void EventPrinter::release(const cli::ReleaseState& state) {
  json_.print("installation", release_fields(state));
  say(release_line(state));
}

void EventPrinter::error(const std::string& text) {
  json_.print("error", Json{{"text", text}});
  cli::complain(text);
}

void EventPrinter::stopped() {
  const std::string name = cli::signal_name(cli::stop_signal());
  json_.print("stopped", Json{{"signal", name}}, Kind::kResult);
  if (!json_.enabled()) cli::standard_output().line("stopped by " + name, Kind::kResult);
}

void EventPrinter::gave_up(const std::string& what, double timeout_seconds) {
  if (cli::stop_signal() == 0)
    return error(fmt::format("{}: nothing was heard for {} s (--timeout)", what, timeout_seconds));
  json_.print("interrupted", Json{{"signal", cli::signal_name(cli::stop_signal())}}, Kind::kResult);
  error(cli::stop_text() + ": " + what);
}

bool await_lead(Node& node, EventPrinter& printer, const NodeOptions& options) {
  if (node.run_until([&] { return printer.lead_is_known(); }, options.timeout_seconds)) return true;
  printer.gave_up(fmt::format("no lead was heard on {}",
                              cli::format_address(options.common.ctrl_group.address)),
                  options.timeout_seconds);
  return false;
}

}  // namespace pkgdist::node_program
