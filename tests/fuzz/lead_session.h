// What inputs of the lead's fuzzer mean, for it and for makers of inputs.
#pragma once

#include "lead_cluster.h"

namespace fuzz {

// What a step does, and its payload.
enum class LeadDo : uint8_t {
  kControl,      // sender's address, last byte (1), length of the header (1), header, body
  kData,         // the same
  kOverheard,    // the same
  kControlRaw,   // sender (1), bytes
  kDataRaw,      // sender (1), bytes
  kTime,         // milliseconds (2)
  kBurst,        // times (1), control or data (1), then as kControl: from growing addresses
  kSendMessage,  // class, audience (1 each), size (2)
  kCancel,       // audience (1)
  kDelete,       // location, audience (1 each), name
  kPush,         // priority, audience (1 each)
  kStopPush,
  kBreakFile,  // which, whether opening or reading (1 each)
  kNode,       // which, what becomes of it: stops, starts, asks for a file, sends a message
};
inline constexpr uint8_t kLeadKinds = 14;

// First byte of an input.
enum LeadOptions : uint8_t {
  kEverybodyWhoIsHeard = 1,  // the push is for all nodes, whoever that is
  kListensFirst = 2,
  kStandsBy = 4,
  kNoForgedSenders = 8,  // a datagram comes from the address that it names, or is dropped
};

inline pkgdist::lead::Settings lead_settings(uint8_t options) {
  using namespace pkgdist;
  lead::Settings settings = test::LeadCluster::default_settings();
  settings.segment_size = 64;
  settings.node_timeout = 2 * lead::kSecond;
  settings.listen = (options & kListensFirst) != 0 ? lead::kDefaultListen : 0;
  settings.standby = (options & kStandsBy) != 0;
  settings.multi_homed = (options & kNoForgedSenders) == 0;
  return settings;
}

inline void fill_store(pkgdist::test::MemoryStore& store) {
  using pkgdist::test::pattern;
  store.add("f0", pattern(300, 1));
  store.add("d/f1", pattern(64, 2));
  store.add_link("link", "f0");
}

}  // namespace fuzz
