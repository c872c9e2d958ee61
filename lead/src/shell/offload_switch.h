// Whether datagrams of one length leave as one segmentation-offload batch.
//
// A way that cannot do it refuses the batch with errors of its own; then datagrams leave one by one
// for a minute, after which it is tried again: the way may have changed. Other errors say nothing
// about the offload: a full queue, a link that is down, a packet filter.
#pragma once

#include <cerrno>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class OffloadSwitch {
 public:
  bool on(Time now) const { return now >= off_until_; }
  // A batch of several datagrams was not sent. True when it is because of the offload.
  bool refused(int error, Time now) {
    // EIO: the device computes no checksums. EINVAL, EMSGSIZE: a datagram exceeds its MTU.
    if (error != EINVAL && error != EOPNOTSUPP && error != EMSGSIZE && error != EIO) return false;
    off_until_ = now + kPause;
    return true;
  }

 private:
  static constexpr Time kPause = 60 * kSecond;
  Time off_until_ = 0;
};

}  // namespace pkgdist::lead
