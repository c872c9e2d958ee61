#include "control/leadership.h"

namespace pkgdist::lead {

namespace {

// Below the 7.5 s after which nodes take another lead.
constexpr Time kStall = 7 * kSecond;
// An owner that sleeps until the next deadline is not stalled.
constexpr Time kLongestRest = kSecond;
// Questions while it listens.
constexpr uint32_t kQuestions = 3;
// Above the 7.5 s of the nodes' patience.
constexpr Time kSwitchTime = 8 * kSecond;
// Who is heard again after a longer pause was not there all the time: three pings may get lost.
constexpr Time kRivalForgottenAfter = 3500 * kMillisecond;
// However many others ask.
constexpr Time kLongestListening = 2 * kSecond;

}  // namespace

bool Leadership::comes_before(uint32_t address, uint32_t since) const {
  if (since != 0 && since != since_) return since < since_;
  return address < self_.address;
}

bool Leadership::yields_to(uint32_t address, uint32_t since, bool followed, Time now) {
  if (!comes_before(address, since)) return false;
  if (!followed) return true;
  return since != 0 && heard_for(address, now) >= kSwitchTime;
}

// How long a rival has been heard without a long pause.
Time Leadership::heard_for(uint32_t address, Time now) {
  if (address != rival_ || elapsed(now, rival_heard_) > kRivalForgottenAfter) rival_since_ = now;
  rival_ = address;
  rival_heard_ = now;
  return elapsed(now, rival_since_);
}

void Leadership::on_other_lead(uint32_t address, uint32_t since, bool followed, Time now) {
  if (role_ == Role::kLeading && !yields_to(address, since, followed, now)) return;
  other_ = address;
  quiet_since_ = now;
  role_ = Role::kStandingBy;
  begun_ = true;
}

void Leadership::on_query(uint32_t address, Time now) {
  if (role_ != Role::kListening || address > self_.address) return;
  if (elapsed(now, listening_since_) < kLongestListening) quiet_since_ = now;
}

void Leadership::listen(Time now) {
  role_ = Role::kListening;
  quiet_since_ = listening_since_ = now;
  asked_ = 0;
}

bool Leadership::may_ask() const {
  return begun_ && role_ == Role::kListening && self_.listen != 0 && asked_ < kQuestions;
}

bool Leadership::asks(Time now) {
  if (!may_ask() || now < listening_since_ + asked_ * self_.listen / kQuestions) return false;
  ++asked_;
  return true;
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
    listen(now);
    if (self_.standby) role_ = Role::kStandingBy;
  }
  if (stalled) {
    if (leads()) listen(now);
    quiet_since_ = now;  // what was said meanwhile is only read now
  }
  if (!leads() && now >= takes_over_at()) lead(now);
}

Time Leadership::takes_over_at() const {
  return quiet_since_ + (role_ == Role::kListening ? self_.listen : self_.takeover);
}

Time Leadership::next_deadline() const {
  if (leads()) return kNever;
  const Time deadline = std::min(takes_over_at(), last_run_ + kLongestRest);
  if (!may_ask()) return deadline;
  return std::min(deadline, listening_since_ + asked_ * self_.listen / kQuestions);
}

}  // namespace pkgdist::lead
