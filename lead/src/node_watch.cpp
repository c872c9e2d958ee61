#include "node_watch.h"

namespace pkgdist::lead {

namespace {

constexpr Time kLookPeriod = 250 * kMillisecond;
// Nodes that are taken out of the table at one time, which takes a look at every transfer for each.
constexpr size_t kMaxReleased = 256;

}  // namespace

void NodeWatch::on_sighting(NodeTable::Result seen) {
  if (seen.index == kNoNode || seen.sighting == Sighting::kKnown) return;
  const NodeInfo& info = parts_.nodes[seen.index].info;
  if (seen.sighting == Sighting::kAppeared) parts_.events.node_appeared(info);
  if (seen.sighting == Sighting::kReturned && info.pid != 0) parts_.events.node_returned(info);
  if (seen.sighting == Sighting::kRestarted) {
    parts_.events.node_restarted(info);
    parts_.control.forget(seen.index);
    parts_.streams.forget(seen.index);
    parts_.outbox.on_gone(seen.index, Delivery::kRestarted);
    parts_.data.drop_node(seen.index);
  }
  if (parts_.push) parts_.push->on_node_fresh(seen.index, seen.sighting == Sighting::kRestarted);
}

void NodeWatch::on_silent(NodeIndex node) {
  if (parts_.nodes[node].info.pid != 0) parts_.events.node_silent(parts_.nodes[node].info);
  parts_.control.forget(node);
  parts_.streams.forget(node);
  parts_.outbox.on_gone(node, Delivery::kSilent);
  if (parts_.push) parts_.push->on_node_silent(node);
  parts_.data.drop_node(node);
}

void NodeWatch::run(Time now) {
  if (now < next_look_) return;
  next_look_ = now + kLookPeriod;
  const Time limit = parts_.pushing() ? parts_.push->node_timeout() : parts_.settings.node_timeout;
  parts_.nodes.expire(now, limit, [&](NodeIndex node) { on_silent(node); });
  if (parts_.nodes.crowded()) release_silent();
}

// But for those that the push counts: what becomes of them is told in the end.
void NodeWatch::release_silent() {
  size_t released = 0;
  for (NodeIndex node = 0; node < parts_.nodes.size() && released < kMaxReleased; ++node) {
    const Node& one = parts_.nodes[node];
    if (!one.silent || one.info.address == 0 || parts_.nodes.named(one.info.address)) continue;
    if (parts_.push && parts_.push->counts(node)) continue;
    parts_.control.forget(node);
    parts_.streams.remove(node);
    parts_.messages.forget(node);
    parts_.data.forget_node(node);
    parts_.nodes.release(node);
    ++released;
  }
}

void NodeWatch::forget_all(Time now) {
  parts_.nodes.expire(now, 0, [&](NodeIndex node) { parts_.streams.forget(node); });
}

}  // namespace pkgdist::lead
