// What this program and the lead's say to each other beside the files (introduction.h): it
// introduces itself to each new lead, answers what the lead asks about files and transactions, and
// hears that the lead uses a location that is not set here.
//
// Everything runs on the thread of the event loop.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "introduction.h"
#include "node_options.h"

namespace pkgdist::node_program {

// A message of class 5, which the library repeats until the lead has it; lost when there is no
// lead. From any thread.
void send_to_lead(const std::string& text);

class LeadTalk {
 public:
  explicit LeadTalk(const NodeOptions& options)
      : options_(options.common), releases_(options.releases) {}

  // A lead was heard that was not before.
  void introduce() const;
  // A message of the lead; false when it is none of these.
  bool on_message(uint32_t msg_class, std::span<const uint8_t> bytes);
  void transaction_started(uint32_t number) { open_.insert(number); }
  void transaction_ended(uint32_t number) { open_.erase(number); }
  const std::set<uint32_t>& open_transactions() const { return open_; }

  // The lead pushes to a location that has not been set.
  std::function<void(uint32_t location)> on_unset;
  // The lead has asked something: subject_text() of it.
  std::function<void(const char* what)> on_question;
  // Takes questions that are answered elsewhere; false: this is none. May be null.
  std::function<bool(const cli::NodeQuestion&)> takes_question;
  // How long the command of --on-complete may take, if there is one.
  std::optional<double> complete_seconds;

 private:
  void answer(const cli::NodeQuestion& question) const;
  std::string state_of(uint32_t location, const std::string& name, bool remove) const;

  const cli::CommonOptions& options_;
  const ReleaseOptions& releases_;
  std::set<uint32_t> open_;  // transactions of leads
};

}  // namespace pkgdist::node_program
