// Tells what happens on a node: lines for people, or JSON events.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "json_events.h"
#include "node_options.h"
#include "partial_files.h"
#include "pkgdist/pkgdist_recv.h"

namespace pkgdist::node_program {

class EventPrinter {
 public:
  explicit EventPrinter(const NodeOptions& options)
      : json_(options.common.json), verbosity_(options.common.verbosity) {}

  // Attaches to everything that the lead does unasked; `files` hears of it, too. Both objects must
  // outlive the loop.
  void attach(levm_handle_t loop, PartialFiles& files);
  PartialFiles& partial_files() { return *partial_files_; }

  void lead_changed(uint32_t lead, uint32_t pid, bool failover);
  void transaction_started(uint32_t xact_id, uint32_t location, uint32_t count);
  void file_ended(uint64_t status, const char* path, uint32_t location, uint32_t xact_id);
  void transaction_done(uint64_t status, uint32_t xact_id);
  void message(uint32_t message_class, uint64_t size);
  void message_outcome(uint64_t status);
  void error(const std::string& text);

  bool lead_is_known() const { return lead_is_known_; }

 private:
  struct Transaction {
    uint32_t files = 0;
    uint32_t failed = 0;
  };
  void say(const std::string& line) const;

  PartialFiles* partial_files_ = nullptr;
  cli::JsonEvents json_;
  int verbosity_;
  bool lead_is_known_ = false;
  std::map<uint32_t, Transaction> transactions_;
};

// Files that this process has told the lead the end of.
uint32_t reports_sent();

// Segments that the lead sent again on request and this process received.
uint32_t repaired_segments();

}  // namespace pkgdist::node_program
