// The data stream: every file on its way, and what is sent next.
//
// A transfer's life: its information is sent (Queued -> Announced), after a short wait for nodes
// that have the file already its segments follow (Streaming), and when the stream has gone round it
// the nodes that have not reported are polled and helped (Settling), until every node concerned has
// ended. This class is the loop over its parts:
//
//   transfer_table.h    the transfers under way
//   recipients.h        who receives a file
//   schedule.h          what is announced and streamed next
//   repair_line.h       what is repaired next, and repair_queue.h for each file
//   segment_requests.h  what nodes ask for again
//   settling.h          how a file ends
//   window.h            how much may be in flight; pacer.h: how fast, when the operator says so
//   data_contact.h      which nodes the data channel does not reach
//   arrival.h           how much has arrived on each node
//   open_contents.h     where the bytes come from
//   data_output.h       what leaves
//
// Repairs are due at once, and take turns with the stream.
#pragma once

#include "stream/recipients.h"
#include "stream/segment_requests.h"

namespace pkgdist::lead {

class DataSender {
 public:
  DataSender(const Settings& self, const NodeTable& nodes, DatagramSink& sink, ContentStore& store,
             Counters& counters, TransferObserver& observer);

  // Tag of transfers that a node asked for outside of a push.
  static constexpr uint64_t kRequested = Recipients::kRequestedTag;

  // Begins the transfer of a file of the push that has none yet.
  TransferId start(FileKey key, uint32_t priority, uint64_t tag,
                   const std::vector<NodeIndex>& nodes, Time now);
  // The same for a node that asked for it; kNoTransfer when it has no place left.
  TransferId start_requested(FileKey key, uint32_t priority, NodeIndex asker, Time now);
  // A transfer that was requested becomes one of the push, with this tag.
  void hand_over(TransferId id, uint64_t tag) { recipients_.hand_over(id, tag); }
  // The push does not wait for the transfer any longer: it goes on for whoever asked for it.
  void leave_to_guests(TransferId id) { recipients_.leave_to_guests(id); }
  // The node wants the file, too. `guest`: nobody waits for it.
  void join(TransferId id, NodeIndex node, bool guest, Time now) {
    recipients_.join(id, node, guest, now);
  }
  // The same for a node that just asked for the information, so it has none.
  void join_asking(TransferId id, NodeIndex node, bool guest, Time now) {
    recipients_.join_asking(id, node, guest, now);
  }
  // The node, which receives it already, is no guest any longer.
  void wait_for(TransferId id, NodeIndex node) { table_.at(id)->set_guest(node, false); }
  // Ends a transfer without a word.
  void displace(TransferId id) { settling_.close(*table_.at(id)); }
  // The node is gone: nothing is waited for.
  void drop_node(NodeIndex node) { recipients_.drop(node); }
  // It was dropped, and another node may get its index.
  void forget_node(NodeIndex node) { recipients_.forget(node); }
  // Ends all transfers with a tag below this without a word.
  void abandon(uint64_t tag_limit);
  void abandon_all() { abandon(UINT64_MAX); }

  TransferId find(const FileKey& key) const { return table_.find(key); }
  // Whether the file has to wait for the end of another one; see transfer_table.h.
  bool collides(const FileKey& key) const { return table_.collides(key); }
  const Transfer* get(TransferId id) const { return table_.at(id); }
  // Segments that the node has of a file that it has not reported to be whole, as far as it has
  // said.
  uint64_t arrived_segments(const Transfer& transfer, NodeIndex node) const {
    return arrival_.segments(transfer, node);
  }

  // Transfers that are announced but not streamed yet, and the bytes in them.
  size_t waiting_files() const { return schedule_.waiting_files(); }
  uint64_t waiting_bytes() const { return schedule_.waiting_bytes(); }
  // How long the stream takes to come to the end of what was started, at the present rate.
  double backlog_seconds();

  // Messages from nodes.
  // Returns how many segments of the file were asked for, 0 when the request makes no sense.
  uint32_t on_segment_request(NodeIndex node, uint32_t file_id, uint32_t first, uint32_t num,
                              Time now) {
    return requests_.on_request(node, file_id, first, num, now);
  }
  void on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now);

  // Tells one node that a file cannot be sent.
  void refuse(const FileKey& key, uint64_t status, NodeIndex node) {
    output_.refuse(table_.next_id(), key, status, node);
  }

  // Of the control channel.
  void set_round_trip(Time round_trip) { schedule_.set_round_trip(round_trip); }
  void run(Time now);
  Time next_deadline(Time now) const;
  // A node that the others have waited for so long, more often than not; kNoNode: there is none.
  NodeIndex take_straggler(Time now, Time patience) {
    return window_.take_straggler(now, patience);
  }
  // Why nothing can be expected of the node any more: it answers nothing on the data channel. 0: it
  // does.
  uint64_t out_of_contact(NodeIndex node, Time now) const { return contact_.lost(node, now); }
  // Nothing at all is heard of the node at present: that it does not answer says no more.
  void restart_contact(NodeIndex node) { contact_.restart(node); }
  // Bits per second: the fixed rate, or what the nodes handle at present.
  uint64_t rate_bits() const {
    return self_.rate_bits != 0 ? self_.rate_bits : static_cast<uint64_t>(window_.rate() * 8);
  }

 private:
  double pace() const;  // bytes per second
  bool send_next(Time now);
  Transfer& add(FileKey key, uint32_t priority, uint64_t tag, Time now);
  bool send_announcement(Lane lane, Time now);
  bool send_repair(Time now);
  bool send_stream(Time now);
  bool send_stream_of(Lane lane, Time now);
  bool send_segment(Transfer& transfer, uint32_t segment, DataOutput::As as, Time now);
  void send_infos(Transfer& transfer, int copies, Time now);
  bool poll_if_due(bool stops, Time now);
  void poll_for_arrival(Time now);

  const Settings& self_;
  TransferTable table_;
  OpenContents contents_;
  Window window_;
  Pacer pacer_;
  DataOutput output_;
  Schedule schedule_;
  RepairLine repairs_;
  LossMeter loss_;
  DataContact contact_;
  Arrival arrival_;
  Settling settling_;
  Recipients recipients_;
  SegmentRequests requests_;
  uint32_t turn_ = 0;  // datagrams since repairs had their turn
};

}  // namespace pkgdist::lead
