// The control side under test: datagrams as the lead sends them, what the node answered as words,
// and a caller with an event loop who writes down what it was called with.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pkgdist_ctrl_recv_lead_chg.h"
#include "pkgdist_ctrl_recv_msg.h"
#include "pkgdist_ctrl_recv_process.h"
#include "recv_support.h"

namespace support {

// --- Datagrams of the lead ---

struct Sender {
  uint32_t address = kLeadAddress;
  uint32_t pid = 100;
  uint32_t node_id = 0;  // 0: not known, the field is absent
};

Bytes ping(uint32_t sequence, std::optional<uint64_t> status = {}, const Sender& from = {});

// One datagram of a control message.
struct Segment {
  uint32_t sequence;
  std::string data = "m";
  uint32_t msg_class = 2;
  uint32_t segment = 0;
  std::optional<uint32_t> total_size = {};  // the size of `data` unless given
  uint32_t segment_size = 1390;
  bool rxmt = false;
  uint32_t card_class = 0;
  std::vector<uint32_t> nodes = {};
  Sender from = {};
};
Bytes control(const Segment& segment);

// An answer of the lead to a message of this node.
Bytes lead_ack(uint32_t sequence, uint32_t address = kLeadAddress);
Bytes lead_nack(uint32_t sequence, std::optional<uint32_t> segment = {},
                uint32_t address = kLeadAddress);

void receive(const Bytes& datagram, bool unicast = false);

// Drops channels that outlive their contexts: each repeated attach holds its channel once more.
void drop_control_channels();

// --- What the node sent, as words ---
// "MC ACK 5 point 4", "MC NACK 6 point 4", "MC NACK 6 segment 1 point 4", "UC ACK 5",
// "UC NACK 6 segment 1", "REPLY 9", "REPLY 9 status 5", "MSG 1 segment 0 size 1390/2780",
// "MSG 1 segment 0 size 1390/2780 rxmt". Each is checked for its destination and for the fields
// that every header of a node carries. The datagrams are taken.
std::vector<std::string> answers();
using Words = std::vector<std::string>;

// --- A caller ---

struct LeadChange {
  uint32_t lead;
  uint32_t pid;
  bool failover;
  bool operator==(const LeadChange&) const = default;
};

class CtrlTest : public virtual RecvTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  levm_handle_t loop() const { return loop_; }
  // Runs the handlers that have work, once each; how many they were.
  int run() const { return levm_run_once(loop_, 0); }

  // Attaches a handler that writes into messages().
  void attach(uint32_t msg_class);
  // The first receive identifier of a status client of this loop; its status goes to statuses().
  uint32_t status_client();

  std::vector<std::string>& messages() { return messages_; }
  std::vector<PkgdistStatus>& statuses() { return statuses_; }
  std::vector<LeadChange>& lead_changes() { return lead_changes_; }

  // Callbacks; their context is this fixture.
  static void on_message(const void* bytes, uint64_t size, void* fixture);
  static void on_status(uint64_t status, void* fixture);
  static void on_lead_change(uint32_t lead, uint32_t pid, bool failover, void* fixture);

  // The last multicast sequence, with everything up to it finished.
  static void set_multicast_point(uint32_t sequence);

 private:
  levm_handle_t loop_ = nullptr;
  std::vector<std::string> messages_;
  std::vector<PkgdistStatus> statuses_;
  std::vector<LeadChange> lead_changes_;
};

// An address as the log prints it.
std::string dotted(uint32_t address);

}  // namespace support
