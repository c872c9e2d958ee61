#include "json_events.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "printable.h"

namespace pkgdist::cli {

namespace {

std::atomic<bool> any_enabled{false};

}  // namespace

JsonEvents::JsonEvents(bool enabled) : enabled_(enabled) {
  if (enabled) any_enabled = true;
}

void JsonEvents::print(const std::string& event, const nlohmann::ordered_json& fields,
                       Output::Kind kind) const {
  if (!enabled_) return;
  const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
  nlohmann::ordered_json line;
  line["event"] = event;
  line["time"] = rounded(time.count(), kSecondDecimals);
  if (!fields.is_null()) line.update(fields);
  standard_output().write(json_line(line) + '\n', kind);
}

// Divided by a whole number, so that the result is the double nearest to the decimal number.
double rounded(double value, int decimals) {
  const double units = std::pow(10, decimals);
  return std::round(value * units) / units;
}

void print_left_out(uint64_t progress, uint64_t events) {
  JsonEvents(any_enabled)
      .print("output-left-out", {{"progress", progress}, {"events", events}},
             Output::Kind::kResult);
}

}  // namespace pkgdist::cli
