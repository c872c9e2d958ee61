#include "lead_parts.h"

namespace pkgdist::lead {

namespace {

// An acknowledgement point above a message says that the node has it as long as the node cannot
// have given it up; see outbox.h.
constexpr Time kPointTrust = 5 * kSecond;

Settings checked(Settings settings) {
  settings.segment_size = std::clamp<uint32_t>(settings.segment_size, 1, kMaxSegmentSize);
  return settings;
}

}  // namespace

LeadParts::LeadParts(const Settings& settings_, DatagramSink& sink_, ContentStore& store,
                     Events& events_)
    : settings(checked(settings_)),
      sink(sink_),
      events(events_),
      number(settings),
      leadership(settings),
      control(settings, sink, counters,
              [this](const ControlStream::Finished& finished) { on_acknowledged(finished); }),
      streams(settings, nodes, sink, counters,
              [this](MessageId id) { outbox.on_unicast_acknowledged(id); }),
      outbox(nodes, control, streams, events),
      messages(settings, nodes, sink, counters,
               [this](NodeIndex node, uint32_t msg_class, std::span<const uint8_t> bytes) {
                 events.message_received(nodes[node].info, msg_class, bytes);
               }),
      router(nodes, events, push),
      data(settings, nodes, sink, store, counters, router) {}

void LeadParts::on_acknowledged(const ControlStream::Finished& finished) {
  const Time adopted = nodes[finished.node].adopted_at;
  const bool certain = finished.direct || (adopted != 0 && adopted <= finished.first_sent &&
                                           elapsed(now, finished.first_sent) < kPointTrust);
  if (outbox.on_acknowledged(finished.sequence, finished.node, certain)) return;
  if (push) push->on_acknowledged(finished.sequence, finished.node, finished.direct);
}

}  // namespace pkgdist::lead
