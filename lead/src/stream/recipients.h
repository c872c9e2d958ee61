// Who receives a file: nodes join a transfer, now or when it is under way, ask for it by
// themselves, and go.
#pragma once

#include "stream/arrival.h"
#include "stream/data_contact.h"
#include "stream/settling.h"

namespace pkgdist::lead {

class Recipients {
 public:
  // Tag of transfers that a node asked for outside of a push.
  static constexpr uint64_t kRequestedTag = UINT64_MAX;

  // The other parts of the stream; all outlive this.
  struct Stream {
    TransferTable& table;
    Window& window;
    DataOutput& output;
    Schedule& schedule;
    DataContact& contact;
    Arrival& arrival;
    Settling& settling;
  };
  explicit Recipients(const Stream& stream) : stream_(stream) {}

  // A node of a transfer that is only being started. `guest`: nobody waits for it.
  void admit(Transfer& transfer, NodeIndex node, bool guest, Time now);
  // The node wants the file, too.
  void join(TransferId id, NodeIndex node, bool guest, Time now);
  // The same for a node that just asked for the information, so it has none.
  void join_asking(TransferId id, NodeIndex node, bool guest, Time now);
  // A transfer that was requested becomes one of the push, with this tag.
  void hand_over(TransferId id, uint64_t tag);
  // The push does not wait for the transfer any longer: it goes on for whoever asked for it.
  void leave_to_guests(TransferId id);
  // The node is gone: nothing is waited for.
  void drop(NodeIndex node);
  // It was dropped, and another node may get its index.
  void forget(NodeIndex node);

 private:
  void set_asker(Transfer& transfer, NodeIndex asker);
  bool inform_again(Transfer& transfer, Time now);

  Stream stream_;
};

}  // namespace pkgdist::lead
