// What the lead tells its owner. All calls come from inside Lead::on_datagram(), Lead::run() or a
// call that the owner makes; none may call back into the lead.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pkgdist::lead {

struct NodeInfo {
  uint32_t address = 0;  // IPv4, host byte order
  uint32_t node_id = 0;  // packed identity, 0 when unknown
  uint32_t pid = 0;
  uint32_t card_class = 0;
};

class Events {
 public:
  virtual ~Events() = default;

  virtual void node_appeared(const NodeInfo&) {}
  // The node's process was replaced: it knows nothing of what was announced before.
  virtual void node_restarted(const NodeInfo&) {}
  // Nothing was heard from the node for the node time-out; node_returned() when it speaks again.
  virtual void node_silent(const NodeInfo&) {}
  virtual void node_returned(const NodeInfo&) {}

  virtual void push_started(uint64_t /*files*/, uint64_t /*bytes*/, uint32_t /*nodes*/) {}
  // A file of the push ended on a node. `skipped`: the node had it already.
  virtual void file_ended(const NodeInfo&, const std::string& /*name*/, uint64_t /*status*/,
                          bool /*skipped*/) {}
  virtual void push_finished() {}

  // A message of a node, whole and once.
  virtual void message_received(const NodeInfo&, uint32_t /*msg_class*/,
                                std::span<const uint8_t> /*bytes*/) {}
  // A node has finished the message that Lead::send_message() and its like gave the sequence.
  virtual void message_acknowledged(const NodeInfo&, uint32_t /*sequence*/) {}

  // A node asked for a file; `status` is non-zero when it cannot be sent.
  virtual void file_requested(const NodeInfo&, uint32_t /*location*/, const std::string& /*name*/,
                              uint64_t /*status*/) {}
  // A file that a node asked for ended there.
  virtual void request_ended(const NodeInfo&, uint32_t /*location*/, const std::string& /*name*/,
                             uint64_t /*status*/) {}
};

}  // namespace pkgdist::lead
