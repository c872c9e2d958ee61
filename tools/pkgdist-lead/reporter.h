// What the lead's events look like: lines for people, or JSON.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "control_protocol.h"
#include "introduction.h"
#include "json_events.h"
#include "network_interface.h"
#include "pkgdist_lead/events.h"
#include "pkgdist_lead/push.h"

namespace pkgdist::lead_program {

// Lines and events that --quiet leaves.
inline constexpr auto kResult = cli::Output::Kind::kResult;

class Reporter : public lead::Events {
 public:
  Reporter(bool json, int verbosity) : json_(json), verbosity_(verbosity) {}

  // Tells people results alone.
  bool quiet = false;
  // What nodes are called, by address. Scripts are told addresses.
  std::map<uint32_t, std::string> names;
  // The name of a node: the one given, else that of its host, if no other node has the same; its
  // address when it has none.
  std::string label(uint32_t address) const;
  // A node's host is called so. Names that are none of a host are passed over.
  void set_host(uint32_t address, const std::string& host);
  const std::map<uint32_t, std::string>& hosts() const { return hosts_; }
  void sort_by_name(std::vector<lead::PushNodeReport>& nodes) const;

  // A line for people, on standard output; nothing with JSON.
  void say(const std::string& line, cli::Output::Kind kind = cli::Output::Kind::kEvent);
  // What takes a progress display out of the way of a line; null without one.
  std::function<std::string()> before_line;
  // Takes every line instead, also of errors, while somebody else has the terminal.
  std::function<void(const std::string&)> takes_line;

  void node_appeared(const lead::NodeInfo& node) override;
  void node_restarted(const lead::NodeInfo& node) override;
  void address_shared(const lead::NodeInfo& node, uint32_t other_pid) override;
  void node_silent(const lead::NodeInfo& node) override;
  void node_returned(const lead::NodeInfo& node) override;
  void node_deferred(const lead::NodeInfo& node) override;
  void push_started(uint32_t transaction, uint64_t files, uint64_t bytes, uint32_t nodes) override;
  void file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                  bool skipped) override;
  void file_requested(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                      uint64_t status) override;
  void request_ended(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                     uint64_t status) override;
  void message_received(const lead::NodeInfo& node, uint32_t msg_class,
                        std::span<const uint8_t> bytes) override;
  void message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) override;
  void message_missed(const lead::NodeInfo& node, lead::MessageId id, lead::Delivery why) override;
  void message_finished(const lead::MessageReport& report) override;
  void role_changed(lead::Role role, uint32_t other) override;
  void other_lead_heard(uint32_t address, uint32_t pid, uint64_t datagrams) override;
  void sender_mismatch(uint32_t named, uint32_t from, uint64_t datagrams) override;

  // Hears every message of a node first; with true there is no report of it.
  std::function<bool(const lead::NodeInfo&, uint32_t, std::span<const uint8_t>)> takes_message;
  // What becomes of these messages of the lead is not reported.
  std::function<bool(lead::MessageId)> hides_message;
  // Hears every message of a node, behind the report of it.
  std::function<void(const lead::NodeInfo&, uint32_t, std::span<const uint8_t>)> on_message;

  // A request came over the control socket and became the message `id` to so many nodes.
  void request_taken(lead::MessageId id, const Request& request, size_t nodes);
  // A push waits in a lead that serves, behind others.
  void push_queued(uint32_t number, const std::vector<std::string>& before);
  void interface_changed(const cli::InterfaceChange& change);
  // The program of a node has said who it is.
  void node_introduced(const lead::NodeInfo& node, const cli::Introduction& introduction);
  // A push goes on without the node, which has not set its location.
  void location_missing(uint32_t node, uint32_t location);
  // From any thread.
  void error(const std::string& text);

  const cli::JsonEvents& json() const { return json_; }

 private:
  void clear_progress();
  void complain(const std::string& text);
  void node_event(const char* event, const char* text, const lead::NodeInfo& node);
  void message_outcome(const lead::NodeInfo& node, lead::MessageId id, lead::Delivery delivery);

  cli::JsonEvents json_;
  int verbosity_;
  std::map<uint32_t, std::string> hosts_;      // of those that have introduced themselves
  std::map<std::string, size_t> host_counts_;  // nodes of this name
};

// "12.3 MB", "94.1 Mbit/s", "3 min 20 s", "1/2/3" and the like.
std::string format_bytes(double bytes);
std::string format_bits(double bits);
std::string format_duration(double seconds);
std::string node_id_text(uint32_t id);
// Of an introduction, for events.
nlohmann::ordered_json locations_of(const cli::Introduction& introduction);

}  // namespace pkgdist::lead_program
