// The lead's events as lines of JSON, for a push that another process shows, and back.
#pragma once

#include <memory>
#include <vector>

#include "line_server.h"
#include "push_wire.h"
#include "reporter.h"

namespace pkgdist::lead_program {

// Hands events on to a reporter, and those that belong to a push to the client that shows it.
class EventTee : public lead::Events {
 public:
  explicit EventTee(lead::Events& own) : own_(own) {}

  // Null: nobody.
  void show_to(std::shared_ptr<cli::LineClient> client) { client_ = std::move(client); }

  // Not an event of the lead: a push goes on without a node that has not set its location.
  void location_missing(uint32_t node, uint32_t location);

  void node_appeared(const lead::NodeInfo& node) override;
  void node_restarted(const lead::NodeInfo& node) override;
  void address_shared(const lead::NodeInfo& node, uint32_t other_pid) override;
  void node_silent(const lead::NodeInfo& node) override;
  void node_returned(const lead::NodeInfo& node) override;
  void node_deferred(const lead::NodeInfo& node) override;
  void push_started(uint32_t transaction, uint64_t files, uint64_t bytes, uint32_t nodes) override;
  void file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                  bool skipped) override;
  void push_finished() override { own_.push_finished(); }
  void message_received(const lead::NodeInfo& node, uint32_t msg_class,
                        std::span<const uint8_t> bytes) override {
    own_.message_received(node, msg_class, bytes);
  }
  void message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) override {
    own_.message_acknowledged(node, id);
  }
  void message_missed(const lead::NodeInfo& node, lead::MessageId id, lead::Delivery why) override {
    own_.message_missed(node, id, why);
  }
  void message_finished(const lead::MessageReport& report) override {
    own_.message_finished(report);
  }
  void file_requested(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                      uint64_t status) override {
    own_.file_requested(node, location, name, status);
  }
  void request_ended(const lead::NodeInfo& node, uint32_t location, const std::string& name,
                     uint64_t status) override {
    own_.request_ended(node, location, name, status);
  }
  void role_changed(lead::Role role, uint32_t other) override;
  void other_lead_heard(uint32_t address, uint32_t pid, uint64_t datagrams) override {
    own_.other_lead_heard(address, pid, datagrams);
  }
  void sender_mismatch(uint32_t named, uint32_t from, uint64_t datagrams) override {
    own_.sender_mismatch(named, from, datagrams);
  }

 private:
  void say(const char* what, const lead::NodeInfo& node);
  void say(const char* what, const lead::NodeInfo& node, const Json& more);

  lead::Events& own_;
  std::shared_ptr<cli::LineClient> client_;
};

// What the line tells goes to `events`; false when it is no event of a lead.
bool replay_event(const Json& line, lead::Events& events);

}  // namespace pkgdist::lead_program
