#include "push_meter.h"

#include <algorithm>
#include <cmath>

namespace pkgdist::lead_program {

namespace {

// Ages at which something weighs a third of what is new.
constexpr double kRateWindowSeconds = 5;
constexpr double kEndSeconds = 2;
// Less says nothing about a rate.
constexpr lead::Time kMinTime = 2 * lead::kSecond;
// Longer is no estimate: the node makes hardly any progress.
constexpr double kMaxLeftSeconds = 100 * 3600.0;

double seconds_of(lead::Time time) {
  return static_cast<double>(time) / static_cast<double>(lead::kSecond);
}

double growth(uint64_t from, uint64_t to) {
  return to > from ? static_cast<double>(to - from) : 0;
}

bool waited_for(const lead::PushNodeReport& node) {
  return node.heard && !node.silent && node.files_left != 0;
}

uint64_t unsent(const lead::PushNodeReport& node) {
  return node.bytes_left > node.bytes_sent ? node.bytes_left - node.bytes_sent : 0;
}

}  // namespace

void PushMeter::add(Sample& sample, uint64_t received, uint64_t passed, lead::Time now) {
  if (sample.time != 0) {
    const double seconds = seconds_of(lead::elapsed(now, sample.time));
    const double kept = std::exp(-seconds / kRateWindowSeconds);
    sample.received_sum = sample.received_sum * kept + growth(sample.received, received);
    sample.passed_sum = sample.passed_sum * kept + growth(sample.passed, passed);
    sample.seconds = sample.seconds * kept + seconds;
  }
  if (sample.time == 0) sample.first = now;
  sample.time = now;
  sample.received = received;
  sample.passed = passed;
}

void PushMeter::update(const lead::PushReport& report, lead::Time now) {
  if (!report.started || now <= updated_) return;
  for (const lead::PushNodeReport& node : report.nodes) {
    if (!node.heard) continue;
    const uint64_t received = node.bytes_done - node.bytes_skipped + node.bytes_in_transfer;
    add(samples_[node.address], received, report.bytes - std::min(report.bytes, unsent(node)), now);
  }
  const std::optional<double> left = estimate(report);
  const double kept = left ? std::exp(-seconds_of(lead::elapsed(now, updated_)) / kEndSeconds) : 0;
  updated_ = now;
  end_weight_ *= kept;
  end_sum_ *= kept;
  if (!left) return;
  end_weight_ += 1 - kept;
  end_sum_ += (1 - kept) * (seconds_of(now) + *left);
}

bool PushMeter::measured(const Sample& sample) {
  return lead::elapsed(sample.time, sample.first) >= kMinTime;
}

// Bytes per second of the fastest node, 0 before there is a measure.
double PushMeter::best_rate() const {
  double best = 0;
  for (const auto& [address, sample] : samples_)
    if (measured(sample)) best = std::max(best, sample.passed_sum / sample.seconds);
  return best;
}

std::optional<double> PushMeter::estimate(const lead::PushReport& report) const {
  std::optional<double> left;
  const double best = best_rate();
  for (const lead::PushNodeReport& node : report.nodes) {
    if (!waited_for(node)) continue;
    const Sample& sample = samples_.at(node.address);
    // A node that has just come is expected to keep the pace of the others.
    const double rate = measured(sample) ? sample.passed_sum / sample.seconds : best;
    const auto bytes = static_cast<double>(unsent(node));
    const double seconds = bytes > 0 ? bytes / rate : 0;
    if (!(seconds <= kMaxLeftSeconds)) return std::nullopt;
    left = std::max(left.value_or(0), seconds);
  }
  return left;
}

double PushMeter::rate(uint32_t address) const {
  const auto found = samples_.find(address);
  if (found == samples_.end() || found->second.seconds <= 0) return 0;
  return found->second.received_sum / found->second.seconds;
}

std::optional<double> PushMeter::seconds_left(lead::Time now) const {
  if (end_weight_ <= 0) return std::nullopt;
  return std::max(0.0, end_sum_ / end_weight_ - seconds_of(now));
}

}  // namespace pkgdist::lead_program
