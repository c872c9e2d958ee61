// Events as JSON, one object per line on standard output, each with the name of the event and the
// time.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "output.h"

namespace pkgdist::cli {

class JsonEvents {
 public:
  explicit JsonEvents(bool enabled);
  bool enabled() const { return enabled_; }

  // Nothing when not enabled. "event" and "time" (seconds since the epoch) are added to the fields.
  // From any thread.
  void print(const std::string& event, const nlohmann::ordered_json& fields,
             Output::Kind kind = Output::Kind::kEvent) const;

 private:
  bool enabled_;
};

// The number with so many decimals: what is written has no digits that say nothing.
double rounded(double value, int decimals);
// Decimals of times and durations in seconds, and of ratios.
inline constexpr int kSecondDecimals = 3;
inline constexpr int kRatioDecimals = 6;

// The event that tells what was left out; nothing when this process prints no events.
void print_left_out(uint64_t progress, uint64_t events);

}  // namespace pkgdist::cli
