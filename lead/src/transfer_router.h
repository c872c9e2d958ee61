// Says whom a transfer concerns: what the data stream tells about one goes to the push, or to the
// owner when a node asked for the file by itself.
#pragma once

#include <memory>

#include "pkgdist_lead/events.h"
#include "push/push_job.h"

namespace pkgdist::lead {

class TransferRouter : public TransferObserver {
 public:
  // `push`: the present one, null when there is none.
  TransferRouter(const NodeTable& nodes, Events& events, const std::unique_ptr<PushJob>& push)
      : nodes_(nodes), events_(events), push_(push) {}

  void transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                      bool skipped) override;
  void transfer_overheard(const Transfer& transfer, NodeIndex node) override;
  bool transfer_unlisted(const Transfer& transfer, NodeIndex node) override;
  bool transfer_ends_unknown(const Transfer& transfer, uint64_t status) override;
  void transfer_closed(const Transfer& transfer) override;

 private:
  const NodeTable& nodes_;
  Events& events_;
  const std::unique_ptr<PushJob>& push_;
};

}  // namespace pkgdist::lead
