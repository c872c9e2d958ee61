// How many requests of one kind a node sends in a time, whatever datagrams claim: one forged
// datagram must not draw a flood from every node. The moments of the last ones are kept in a ring.
// Whoever uses it holds the lock of the database whose requests it limits.
#pragma once

#include <cstdint>

#include "platform/fts.h"

namespace pkgdist {

// At most `limit` requests within any `period` nanoseconds.
template <uint32_t limit, uint64_t period>
class RequestLimit {
 public:
  // Whether another one may be sent now.
  bool has_room() const {
    const uint64_t stamp = stamps_[oldest_];
    return stamp == 0 || fts_get_stamp_fast() - stamp >= period;
  }
  // One is sent now.
  void note() {
    stamps_[oldest_] = fts_get_stamp_fast();
    oldest_ = (oldest_ + 1) % limit;
  }

 private:
  uint64_t stamps_[limit] = {};  // 0 before as many were sent
  uint32_t oldest_ = 0;
};

}  // namespace pkgdist
