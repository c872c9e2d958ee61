#include "stream/pacer.h"

namespace pkgdist::lead {

Pacer::Pacer(uint64_t bits_per_second)
    : bytes_per_ns_(static_cast<double>(bits_per_second) / 8 / static_cast<double>(kSecond)),
      batch_(std::clamp(bytes_per_second() * kBatchSeconds, kMinBatchBytes, kMaxBatchBytes)),
      depth_(std::clamp(bytes_per_second() * kDepthSeconds, batch_, kMaxDepthBytes)) {}

void Pacer::refill(Time now) {
  const Time passed = elapsed(now, refilled_);
  refilled_ = std::max(now, refilled_);
  tokens_ = std::min(depth_, tokens_ + static_cast<double>(passed) * bytes_per_ns_);
}

Time Pacer::next_ready(Time now) const {
  const double lacking = batch_ - tokens_;
  if (bytes_per_ns_ == 0 || lacking <= 0) return now;
  return now + static_cast<Time>(lacking / bytes_per_ns_) + 1;
}

}  // namespace pkgdist::lead
