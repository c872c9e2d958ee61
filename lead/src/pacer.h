// Token bucket: spreads the data stream evenly. Tokens are bytes on the wire; debts are allowed, so
// that what must go out at once (an answer, a ping) is paid for later.
#pragma once

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class Pacer {
 public:
  explicit Pacer(uint64_t bits_per_second) { set_rate(bits_per_second); }

  void set_rate(uint64_t bits_per_second);
  uint64_t rate() const { return rate_bits_; }

  void refill(Time now);
  bool ready() const { return tokens_ > 0; }
  void spend(size_t payload_bytes) { tokens_ -= static_cast<double>(payload_bytes + kOverhead); }

  // What a batch is at this rate.
  double batch_bytes() const { return batch_; }
  // When enough has been saved for the next batch.
  Time next_ready(Time now) const;

 private:
  // IPv4 and UDP headers.
  static constexpr size_t kOverhead = 28;
  // A batch is what a wake-up should be worth: this much time of the stream, since with less the
  // processor is spent on waking up, and no more than one call hands to the system.
  static constexpr double kBatchSeconds = 0.0002;
  static constexpr double kMinBatchBytes = 12 * 1500;
  static constexpr double kMaxBatchBytes = 40 * 1500;
  // The bucket holds this much time of the stream, so that a late wake-up loses nothing ...
  static constexpr double kDepthSeconds = 0.002;
  // ... but never more than this: receivers take a burst of it into a small socket buffer.
  static constexpr double kMaxDepthBytes = 128 * 1024;

  uint64_t rate_bits_ = 0;
  double bytes_per_ns_ = 0;
  double batch_ = 0;
  double depth_ = 0;
  double tokens_ = kMinBatchBytes;
  Time refilled_ = 0;
};

}  // namespace pkgdist::lead
