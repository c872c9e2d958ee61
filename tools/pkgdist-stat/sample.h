// What is shown of one process at one moment, and what has changed since the moment before.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "stat_object.h"
#include "udp_sockets.h"

namespace pkgdist::stat {

struct Sample {
  Statistics statistics;
  std::optional<std::vector<UdpSocket>> sockets;  // nothing: gone, or not ours to look at
  uint64_t monotonic_ns = 0;                      // when it was taken
};

Sample take_sample(const tools::FoundObject& found);

// The entry of an earlier sample that an entry of a later one continues; null when there is none.
const Entry* earlier_entry(const Sample* earlier, const Table& table, size_t index);
// Whether an entry is shown: `nonzero` leaves out what was never used, `changed` what is as it was
// before; of a first sample, what was never used.
bool is_wanted(const Entry& entry, const Entry* before, bool nonzero, bool changed);
const UdpSocket* earlier_socket(const Sample* earlier, const UdpSocket& socket);

}  // namespace pkgdist::stat
