// What the lead tells its owner. All calls come from inside Lead::on_datagram(), Lead::run() or a
// call that the owner makes; none may call back into the lead.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "pkgdist_lead/message.h"
#include "pkgdist_lead/node_info.h"

namespace pkgdist::lead {

// What a lead does at present.
enum class Role : uint8_t {
  kListening,   // has just begun and listens whether another one leads; says nothing
  kStandingBy,  // another lead is heard, or was until a moment ago; says nothing
  kLeading,
};

class Events {
 public:
  virtual ~Events() = default;

  virtual void node_appeared(const NodeInfo&) {}
  // The node's process was replaced: it knows nothing of what was announced before.
  virtual void node_restarted(const NodeInfo&) {}
  // Two hosts have the node's address: another process than the node's has answered the same ping.
  // Once for each such process. What comes from it is ignored, but for what it asks for and reports
  // of files, which carries no process.
  virtual void address_shared(const NodeInfo&, uint32_t /*other_pid*/) {}
  // Nothing was heard from the node for the node time-out; node_returned() when it speaks again.
  virtual void node_silent(const NodeInfo&) {}
  virtual void node_returned(const NodeInfo&) {}

  // `transaction`: by which the push can be cancelled.
  virtual void push_started(uint32_t /*transaction*/, uint64_t /*files*/, uint64_t /*bytes*/,
                            uint32_t /*nodes*/) {}
  // A file of the push ended on a node. `skipped`: the node had it already.
  virtual void file_ended(const NodeInfo&, const std::string& /*name*/, uint64_t /*status*/,
                          bool /*skipped*/) {}
  // The node is slow: the push goes on without it, and comes back to it when the others have
  // everything.
  virtual void node_deferred(const NodeInfo&) {}
  virtual void push_finished() {}

  // A message of a node, whole and once.
  virtual void message_received(const NodeInfo&, uint32_t /*msg_class*/,
                                std::span<const uint8_t> /*bytes*/) {}
  // A node has finished the message that Lead::send_message() and its like gave the number.
  virtual void message_acknowledged(const NodeInfo&, MessageId) {}
  // A node is not waited for any longer.
  virtual void message_missed(const NodeInfo&, MessageId, Delivery /*why*/) {}
  // Nobody is waited for any longer.
  virtual void message_finished(const MessageReport&) {}

  // A node asked for a file; `status` is non-zero when it cannot be sent.
  virtual void file_requested(const NodeInfo&, uint32_t /*location*/, const std::string& /*name*/,
                              uint64_t /*status*/) {}
  // A file that a node asked for ended there.
  virtual void request_ended(const NodeInfo&, uint32_t /*location*/, const std::string& /*name*/,
                             uint64_t /*status*/) {}

  // The lead takes over or steps aside; `other` is the lead that was heard last, 0 when none was.
  virtual void role_changed(Role, uint32_t /*other*/) {}
  // While this one leads: another lead is heard. Called for the first of its datagrams, and then
  // for every thousandth, with the number of them.
  virtual void other_lead_heard(uint32_t /*address*/, uint32_t /*pid*/, uint64_t /*datagrams*/) {}
  // A datagram was dropped because it names another address than it came from. Called for the
  // first of them, and then for every thousandth, with the number of them.
  virtual void sender_mismatch(uint32_t /*named*/, uint32_t /*from*/, uint64_t /*datagrams*/) {}
};

}  // namespace pkgdist::lead
