#include "transfer_router.h"

namespace pkgdist::lead {

namespace {

bool requested(const Transfer& transfer) {
  return transfer.tag == DataSender::kRequested;
}

}  // namespace

void TransferRouter::transfer_ended(const Transfer& transfer, NodeIndex node, uint64_t status,
                                    bool skipped) {
  if (requested(transfer)) {
    events_.request_ended(nodes_[node].info, transfer.key.location, transfer.key.name, status);
    if (push_ && status == 0) push_->on_received_elsewhere(transfer, node);
  } else if (push_)
    push_->on_ended(transfer, node, status, skipped);
}

void TransferRouter::transfer_overheard(const Transfer& transfer, NodeIndex node) {
  if (requested(transfer) && push_) push_->on_received_elsewhere(transfer, node);
}

bool TransferRouter::transfer_unlisted(const Transfer& transfer, NodeIndex node) {
  return !requested(transfer) && push_ && push_->on_unlisted(transfer, node);
}

bool TransferRouter::transfer_ends_unknown(const Transfer& transfer, uint64_t status) {
  return requested(transfer) || (push_ && push_->ends_unknown(transfer, status));
}

void TransferRouter::transfer_closed(const Transfer& transfer) {
  if (!push_) return;
  if (requested(transfer))
    push_->on_other_closed();
  else
    push_->on_closed(transfer);
}

}  // namespace pkgdist::lead
