// Tells what happens on a node: lines for people, or JSON events.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "json_events.h"
#include "lead_talk.h"
#include "node.h"
#include "node_options.h"
#include "partial_files.h"
#include "pkgdist/pkgdist_recv.h"
#include "release_messages.h"

namespace pkgdist::node_program {

class EventPrinter {
 public:
  explicit EventPrinter(const NodeOptions& options)
      : json_(options.common.json), verbosity_(options.common.verbosity) {}

  // Attaches to everything that the lead does unasked, and to what becomes of the interface; the
  // node's partial files hear of it, too. The object must outlive the node.
  void attach(Node& node);
  PartialFiles& partial_files() { return *partial_files_; }

  // What the node listens on, as whom, and where its locations are.
  void listening(const NodeOptions& options);
  void lead_changed(uint32_t lead, uint32_t pid, bool failover);
  // Names that the library does not take are told: the lead hears only that they are not wanted.
  void transaction_started(uint32_t xact_id, uint32_t location, const char* const* paths,
                           uint32_t count);
  void file_ended(uint64_t status, const char* path, uint32_t location, uint32_t xact_id);
  // The same, of a file that another process has received.
  void file_told(uint64_t status, const std::string& text, const std::string& name,
                 uint32_t location, uint32_t xact_id);
  void transaction_done(uint64_t status, uint32_t xact_id);
  void message(uint32_t message_class, uint64_t size);
  // The lead has asked this program something.
  void question(const char* what);
  // The lead pushes to a location that is not set here.
  void location_unset(uint32_t location);
  // Names are gone that the lead does not have. From any thread.
  void removed(uint32_t location, const std::vector<std::string>& names);
  // Contents were not those that the lead has pushed: some are now, others not. From any thread.
  void compared(uint32_t location, const cli::NodeAnswer& answer);
  void message_outcome(uint64_t status, const std::string& text);
  void interface_changed(const cli::InterfaceChange& change);
  // Both from any thread.
  void release(const cli::ReleaseState& state);
  void error(const std::string& text);
  // A stop signal ends what has no end of its own.
  void stopped();
  // Something was not done: a signal came, or nothing was heard for the time-out.
  void gave_up(const std::string& what, double timeout_seconds);

  bool lead_is_known() const { return lead_is_known_; }
  uint32_t lead() const { return lead_; }  // the address, 0 before there is one

  // Hears of each file that the lead pushed: "" when it has come, or why it has not.
  std::function<void(uint32_t location, const std::string& path, const std::string& trouble)>
      on_file_ended;

  // Hears of leads and transactions, too, when there is one. It must outlive this object.
  void set_lead_talk(LeadTalk* talk) { lead_talk_ = talk; }
  // Hears of each file of a push that this node has. May be null.
  std::function<void(uint32_t xact_id, const std::string& name)> on_file_complete;

 private:
  struct Transaction {
    uint32_t files = 0;
    uint32_t failed = 0;
  };
  void say(const std::string& line) const;
  void tell_refusals(uint32_t xact_id, uint32_t location, const char* const* paths, uint32_t count);

  PartialFiles* partial_files_ = nullptr;
  LeadTalk* lead_talk_ = nullptr;
  const StorageTrouble* storage_trouble_ = nullptr;
  cli::JsonEvents json_;
  int verbosity_;
  bool lead_is_known_ = false;
  uint32_t lead_ = 0;
  std::set<std::pair<uint32_t, std::string>> refused_;  // location and name of what was told
  std::map<uint32_t, Transaction> transactions_;
};

// The address, identity and locations of a node, for events.
nlohmann::ordered_json identity_fields(const NodeOptions& options);

// Waits for a lead; says so when none is heard for the time-out.
bool await_lead(Node& node, EventPrinter& printer, const NodeOptions& options);

// Files that this process has told the lead the end of by itself, at least.
uint32_t ends_reported();

// Grow while the lead is heard about files that this process receives, or about its messages.
uint64_t heard_about_files();
uint64_t heard_about_messages();

// Segments that the lead sent again on request and this process received.
uint32_t repaired_segments();

}  // namespace pkgdist::node_program
