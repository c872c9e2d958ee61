#include "sample.h"

#include <algorithm>

#include "platform/fts.h"

namespace pkgdist::stat {

Sample take_sample(const tools::FoundObject& found) {
  Sample sample;
  sample.statistics = read_statistics_of(found);
  sample.monotonic_ns = fts_get_stamp_fast();
  // Another process may have the number now.
  if (sample.statistics.running) sample.sockets = udp_sockets(found.pid);
  return sample;
}

const Entry* earlier_entry(const Sample* earlier, const Table& table, size_t index) {
  if (earlier == nullptr) return nullptr;
  for (const Table& other : earlier->statistics.tables)
    if (other.application == table.application && other.name == table.name)
      return index < other.entries.size() ? &other.entries[index] : nullptr;
  return nullptr;
}

bool is_wanted(const Entry& entry, const Entry* before, bool nonzero, bool changed) {
  if (!changed || before == nullptr) return !((nonzero || changed) && entry.unused());
  return entry.count != before->count || entry.buckets != before->buckets ||
         entry.current != before->current || entry.mark != before->mark;
}

const UdpSocket* earlier_socket(const Sample* earlier, const UdpSocket& socket) {
  if (earlier == nullptr || !earlier->sockets) return nullptr;
  const auto found = std::find_if(earlier->sockets->begin(), earlier->sockets->end(),
                                  [&](const UdpSocket& s) { return s.inode == socket.inode; });
  return found == earlier->sockets->end() ? nullptr : &*found;
}

}  // namespace pkgdist::stat
