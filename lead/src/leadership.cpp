#include "leadership.h"

namespace pkgdist::lead {

namespace {

// Below the 7.5 s after which nodes take another lead.
constexpr Time kStall = 7 * kSecond;
// An owner that sleeps until the next deadline is not stalled.
constexpr Time kLongestRest = kSecond;

}  // namespace

bool Leadership::yields_to(uint32_t address, uint32_t since, bool followed) const {
  if (since == 0 && followed) return false;
  if (since != 0 && since != since_) return since < since_;
  return self_.address > address;
}

void Leadership::on_other_lead(uint32_t address, uint32_t since, bool followed, Time now) {
  if (role_ == Role::kLeading && !yields_to(address, since, followed)) return;
  other_ = address;
  quiet_since_ = now;
  role_ = Role::kStandingBy;
  begun_ = true;
}

void Leadership::lead(Time now) {
  role_ = Role::kLeading;
  since_ = std::max<uint32_t>(1, static_cast<uint32_t>(self_.wall_seconds + now / kSecond));
}

void Leadership::run(Time now) {
  const bool stalled = begun_ && self_.listen != 0 && elapsed(now, last_run_) >= kStall;
  last_run_ = now;
  if (!begun_) {
    begun_ = true;
    quiet_since_ = now;
    if (self_.standby) role_ = Role::kStandingBy;
  }
  if (stalled) {
    if (leads()) role_ = Role::kListening;
    quiet_since_ = now;  // what was said meanwhile is only read now
  }
  if (!leads() && now >= takes_over_at()) lead(now);
}

Time Leadership::takes_over_at() const {
  return quiet_since_ + (role_ == Role::kListening ? self_.listen : self_.takeover);
}

Time Leadership::next_deadline() const {
  if (leads()) return kNever;
  return std::min(takes_over_at(), last_run_ + kLongestRest);
}

}  // namespace pkgdist::lead
