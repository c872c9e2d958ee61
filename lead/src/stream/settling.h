// How a file ends, after the stream has gone round it.
//
// A node that has a file reports it by itself; a report, a request, a repair or everything may be
// lost, and only the nodes' answers tell. The window says when all that was sent about the file has
// been handled (window.h), so nothing that is on its way is asked for. Then:
//
//   1. Who has not reported is shown where the turn ended and began; and all are polled about the
//      file.
//   2. A node that answers 'in progress' and asks for nothing is stuck, and is helped (help.h).
//   3. Nodes ask by themselves after their time-outs; then this begins anew.
//
// Rounds come at growing intervals, until a node has reported or is given up (giving_up.h).
#pragma once

#include "stream/agenda.h"
#include "stream/giving_up.h"
#include "stream/help.h"
#include "stream/loss_meter.h"
#include "stream/schedule.h"

namespace pkgdist::lead {

// What the owner of the transfers learns. Calls may start further transfers.
class TransferObserver {
 public:
  virtual ~TransferObserver() = default;
  // The node has reported its end. `skipped`: before any segment was sent.
  virtual void transfer_ended(const Transfer&, NodeIndex, uint64_t status, bool skipped) = 0;
  // A node that is not waited for has received the file, too.
  virtual void transfer_overheard(const Transfer&, NodeIndex) {}
  // The node knows nothing of the file. True when it will be announced to it again (join() then
  // follows), false when the node shall be left alone.
  virtual bool transfer_unlisted(const Transfer&, NodeIndex) = 0;
  // The node says that the file ended on it with this error, before it had any information. Nodes
  // remember for a while how files ended: false when this is about an earlier transfer.
  virtual bool transfer_ends_unknown(const Transfer&, uint64_t status) = 0;
  // Nothing is left to do; the transfer is destroyed after the call.
  virtual void transfer_closed(const Transfer&) = 0;
};

class Settling {
 public:
  // The other parts of the stream; all outlive this.
  struct Stream {
    TransferTable& table;
    OpenContents& contents;
    Window& window;
    DataOutput& output;
    Schedule& schedule;
    RepairLine& repairs;
    LossMeter& loss;
  };
  Settling(const Stream& stream, Counters& counters, TransferObserver& observer)
      : stream_(stream),
        counters_(counters),
        observer_(observer),
        agenda_(stream.table, stream.window),
        help_({stream.window, stream.output, stream.repairs}) {}

  // The stream has gone round the file.
  void begin(Transfer& transfer, Time now);
  // All repairs of the file that were due are sent.
  void repaired(Transfer& transfer);
  // The content cannot be sent any further: the nodes are told instead.
  void fail(Transfer& transfer, int error, Time now);
  // A node that has most of the file asks for help: at once.
  void hurry(Transfer& transfer, Time now);
  // The file goes once more round all nodes.
  void stream_again(Transfer& transfer);
  void close(Transfer& transfer);
  void close_if_ended(Transfer& transfer);

  // Settles one file that is due; false when none is.
  bool run(Time now);
  Time next_deadline() const { return agenda_.next_deadline(); }

  // The node is gone for good.
  void forget(TransferId id, NodeIndex node) { giving_up_.forget(id, node); }
  // A node asked for so many segments of a file whose turn is over.
  void on_request(const Transfer& transfer, NodeIndex node, uint32_t segments, Time now) {
    if (transfer.stage != Transfer::Stage::kSettling) return;
    giving_up_.has_asked(transfer.id, node, segments, now);
  }
  void on_report(NodeIndex node, const pkgdist_data_send_req_done& report, Time now);

 private:
  void settle(Transfer& transfer, Time now);
  bool end_hopeless_nodes(Transfer& transfer, Time now);
  void judge_round(Transfer& transfer, Time now);
  bool is_under_way(Transfer& transfer, Help::Result help, Time now);
  void poll(Transfer& transfer, Time now);
  void end_node(Transfer& transfer, NodeIndex node, uint64_t status);
  void on_in_progress(Transfer& transfer, NodeIndex node, Time now);
  void on_stale_report(Transfer& transfer, NodeIndex node, Time now);
  void unlist(Transfer& transfer, NodeIndex node, Time now);
  void note_answer(Transfer& transfer, NodeIndex node, Time now);

  Stream stream_;
  Counters& counters_;
  TransferObserver& observer_;
  Agenda agenda_;
  Help help_;
  GivingUp giving_up_;
};

}  // namespace pkgdist::lead
