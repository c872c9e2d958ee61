// Token bucket: keeps the data stream to a rate that the operator chose. Tokens are bytes on the
// wire; debts are allowed, so that what must go out at once (a poll, an answer) is paid for later.
#pragma once

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

class Pacer {
 public:
  // 0: no limit.
  explicit Pacer(uint64_t bits_per_second);

  // Bytes of content and headers per second; 0: no limit.
  double bytes_per_second() const { return bytes_per_ns_ * static_cast<double>(kSecond); }

  void refill(Time now);
  bool ready() const { return bytes_per_ns_ == 0 || tokens_ > 0; }
  void spend(size_t payload_bytes) { tokens_ -= static_cast<double>(payload_bytes + kOverhead); }

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

  double bytes_per_ns_ = 0;
  double batch_ = 0;
  double depth_ = 0;
  double tokens_ = kMinBatchBytes;
  Time refilled_ = 0;
};

}  // namespace pkgdist::lead
