#include "event_printer.h"

#include <fmt/core.h>

#include <cstdio>
#include <cstring>

#include "node.h"
#include "pkgdist/statistics.h"
#include "status_text.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;

EventPrinter& printer(void* ctx) {
  return *static_cast<EventPrinter*>(ctx);
}

void on_lead_change(uint32_t lead, uint32_t pid, bool failover, void* ctx) {
  printer(ctx).lead_changed(lead, pid, failover);
}
void on_start(uint64_t, const char* const* paths, uint32_t count, uint32_t, uint32_t location,
              uint32_t xact_id, void* ctx) {
  for (uint32_t i = 0; i < count; ++i) printer(ctx).partial_files().note_listed(location, paths[i]);
  printer(ctx).transaction_started(xact_id, location, count);
}
void on_file(uint64_t status, const char* path, uint32_t, uint32_t location, uint32_t xact_id,
             void* ctx) {
  printer(ctx).partial_files().on_ended(location, path, status);
  printer(ctx).file_ended(status, path, location, xact_id);
}
void on_done(uint64_t status, uint32_t xact_id, void* ctx) {
  printer(ctx).transaction_done(status, xact_id);
}

uint32_t counter(DrtCounter entry) {
  constexpr size_t kRecordBytes = 20;
  if (pkgdist_drt_ship_counter_hdl == nullptr) return 0;
  uint32_t value = 0;
  std::memcpy(&value,
              static_cast<const char*>(pkgdist_drt_ship_counter_hdl) +
                  kRecordBytes * static_cast<size_t>(entry),
              sizeof value);
  return value;
}

}  // namespace

uint32_t reports_sent() {
  return counter(DrtCounter::kUcSendDoneSent);
}

uint32_t repaired_segments() {
  return counter(DrtCounter::kMcSingleSegment);
}

void EventPrinter::attach(levm_handle_t loop, PartialFiles& files) {
  partial_files_ = &files;
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
  fmt::print("{}\n", line);
  (void)std::fflush(stdout);
}

void EventPrinter::lead_changed(uint32_t lead, uint32_t pid, bool failover) {
  lead_is_known_ = true;
  json_.print("lead-changed",
              Json{{"lead", cli::format_address(lead)}, {"pid", pid}, {"failover", failover}});
  say(fmt::format("lead {} (process {}){}", cli::format_address(lead), pid,
                  failover ? " has taken over" : ""));
}

void EventPrinter::transaction_started(uint32_t xact_id, uint32_t location, uint32_t count) {
  json_.print("transaction-start",
              Json{{"transaction", xact_id}, {"location", location}, {"files", count}});
  say(fmt::format("transaction {}: {} files for location {}", xact_id, count, location));
}

void EventPrinter::file_ended(uint64_t status, const char* path, uint32_t location,
                              uint32_t xact_id) {
  Transaction& transaction = transactions_[xact_id];
  ++transaction.files;
  if (status != 0) ++transaction.failed;
  json_.print("file", Json{{"transaction", xact_id},
                           {"location", location},
                           {"path", path},
                           {"status", status},
                           {"outcome", cli::status_text(status)}});
  if (status != 0 || verbosity_ > 0)
    say(fmt::format("transaction {}: {}: {}", xact_id, path, cli::status_text(status)));
}

void EventPrinter::transaction_done(uint64_t status, uint32_t xact_id) {
  const Transaction transaction = transactions_[xact_id];
  transactions_.erase(xact_id);
  json_.print("transaction-done", Json{{"transaction", xact_id},
                                       {"status", status},
                                       {"files", transaction.files},
                                       {"failed", transaction.failed},
                                       {"repaired_segments", repaired_segments()}});
  say(fmt::format("transaction {} has ended: {} files, {} failed", xact_id, transaction.files,
                  transaction.failed));
}

void EventPrinter::message(uint32_t message_class, uint64_t size) {
  json_.print("message", Json{{"class", message_class}, {"size", size}});
  say(fmt::format("message of class {}, {} bytes", message_class, size));
}

void EventPrinter::message_outcome(uint64_t status) {
  const std::string outcome = status == 0 ? "acknowledged" : cli::status_text(status);
  json_.print("message-outcome", Json{{"status", status}, {"outcome", outcome}});
  say(fmt::format("message: {}", outcome));
}

void EventPrinter::error(const std::string& text) {
  json_.print("error", Json{{"text", text}});
  fmt::print(stderr, "pkgdist-node: {}\n", text);
}

}  // namespace pkgdist::node_program
