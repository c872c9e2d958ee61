#include "stream/window.h"

namespace pkgdist::lead {

// --- What is handled ---

bool Window::all_excused() const {
  return std::all_of(polled_.begin(), polled_.end(), [](const Polled& p) { return p.excused(); });
}

uint64_t Window::handled() const {
  const bool everyone = all_excused();
  uint64_t least = position_;
  for (const Polled& polled : polled_)
    if ((everyone || !polled.excused()) && busy_.contains(polled.node))
      least = std::min(least, polled.handled);
  return least;
}

uint64_t Window::unhandled(NodeIndex node, uint64_t up_to) const {
  const auto polled =
      std::find_if(polled_.begin(), polled_.end(), [&](const Polled& p) { return p.node == node; });
  if (polled == polled_.end() || polled->excused()) return 0;
  return up_to - std::min(up_to, polled->handled);
}

// The only node without which the window would be open; kNoNode when there are several, or none.
NodeIndex Window::holder() const {
  NodeIndex holder = kNoNode;
  for (const Polled& polled : polled_) {
    if (polled.excused() || !busy_.contains(polled.node) || has_room_behind(polled.handled))
      continue;
    if (holder != kNoNode) return kNoNode;
    holder = polled.node;
  }
  return polled_.size() > 1 ? holder : kNoNode;
}

// A trickle says nothing about what the nodes could handle.
void Window::measure_rate(Time now) {
  const Time passed = elapsed(now, rated_at_);
  if (passed < kRatePeriod) return;
  const uint64_t up_to = handled();
  const uint64_t bytes = up_to > rated_ ? up_to - rated_ : 0;
  if (bytes < kRateSample && passed < kMostRatePeriod) return;
  if (bytes >= kRateSample && passed < kMostRatePeriod) {
    const double sample = static_cast<double>(bytes) * kSecond / static_cast<double>(passed);
    rate_ = rate_ == 0 ? sample : (3 * rate_ + sample) / 4;
    latest_rate_ = sample;
  }
  rated_ = up_to;
  rated_at_ = now;
}

// --- Who is polled ---

bool Window::stale_choice(Time now) const {
  const bool all_done = std::none_of(polled_.begin(), polled_.end(),
                                     [&](const Polled& p) { return busy_.contains(p.node); });
  if (all_done) return true;
  const bool rotates = busy_.count() > polled_.size() && elapsed(now, chosen_at_) >= kRotation;
  return rotates || (chosen_version_ != busy_.version() &&
                     (busy_.count() <= kMaxPolled || elapsed(now, chosen_at_) >= kRotation));
}

// The next eight of the busy nodes; what is known of those that were polled before stays. A node
// that is new has what lies before this moment still to handle, but is not asked about that.
void Window::choose(Time now) {
  chosen_at_ = now;
  chosen_version_ = busy_.version();
  std::vector<Polled> before;
  before.swap(polled_);
  for (NodeIndex seen = 0; seen < busy_.end() && polled_.size() < kMaxPolled; ++seen) {
    const NodeIndex node = (next_choice_ + seen) % busy_.end();
    if (!busy_.contains(node)) continue;
    const auto known =
        std::find_if(before.begin(), before.end(), [&](const Polled& p) { return p.node == node; });
    polled_.push_back(known != before.end() ? *known : Polled{node, asked_});
  }
  if (!polled_.empty()) next_choice_ = polled_.back().node + 1;
}

// --- Polls ---

double Window::poll_gap() const {
  const bool answers_come = loss_ * static_cast<double>(polled_.size()) < kRareLoss;
  const double most = std::max(kMostPollGap, size_ / kMostPolls);
  return std::clamp(size_ / (answers_come ? 2 : 4), kLeastPollGap, most);
}

Time Window::patience() const {
  if (!round_trip_.known()) return 4 * kLeastPatience;
  return std::clamp(round_trip_.nearly_always() + round_trip_.mean(), kLeastPatience,
                    kMostPatience);
}

Time Window::answer_time() const {
  return patience();
}

// A full window is polled for at once, so that as much as possible is let out together; but not
// where files are small: the reports that open it are under way, and more of them follow.
bool Window::poll_due(bool stops, Time now) const {
  if (busy_.count() == 0) return false;
  const bool opened_by_reports = !open() && latest().is_file;
  const bool ends = stops && !opened_by_reports;
  if (position_ > asked_ && (ends || static_cast<double>(position_ - asked_) >= poll_gap()))
    return true;
  return stops && next_poll(now) <= now;
}

Time Window::next_poll(Time) const {
  if (busy_.count() == 0 || handled() >= asked_) return kNever;
  const uint32_t more = repeats_ > kExcusePolls ? repeats_ - kExcusePolls : 0;
  return asked_at_ + backoff(patience(), more, std::max(patience(), kMostRepeatGap));
}

const std::vector<NodeIndex>& Window::begin_poll(TransferId number, Time now) {
  if (stale_choice(now)) choose(now);
  const bool again = position_ <= asked_;
  repeats_ = again ? repeats_ + 1 : 0;
  if (again && all_excused()) creep();
  const uint64_t asked = position_ + kSmallestCharge;  // behind the poll itself
  named_.clear();
  for (Polled& polled : polled_) {
    if (!busy_.contains(polled.node)) continue;
    if (again && polled.handled >= asked_) {
      polled.handled = asked;  // nothing but the poll lies between
      continue;
    }
    named_.push_back(polled.node);
    ++polled.unanswered;
    if (polled.owes_since == 0) polled.owes_since = now;
    if (polled.unanswered > kExcusePolls && elapsed(now, polled.owes_since) >= kExcuseAfter)
      polled.excused_ = true;
  }
  asked_ = named_.empty() ? position_ : asked;
  if (!named_.empty()) remember({number, asked_, now});
  return named_;
}

void Window::remember(const Poll& poll) {
  asked_ = poll.position;
  asked_at_ = poll.sent;
  polls_[next_] = poll;
  next_ = (next_ + 1) % polls_.size();
}

bool Window::would_name_only_nodes_of(const Transfer& file) const {
  return std::all_of(polled_.begin(), polled_.end(), [&](const Polled& polled) {
    if (!busy_.contains(polled.node)) return true;
    if (polled.excused() || polled.node >= file.nodes.size()) return false;
    const TransferNode& node = file.nodes[polled.node];
    return node.state == TransferNode::State::kOpen && !node.has_info;
  });
}

void Window::expect_reports(const Transfer& file, Time now) {
  if (static_cast<double>(position_ - asked_) < size_ / 8) return;
  if (stale_choice(now) || !would_name_only_nodes_of(file)) return;
  repeats_ = 0;
  for (Polled& polled : polled_)
    if (busy_.contains(polled.node) && polled.owes_since == 0) polled.owes_since = now;
  remember({file.id, position_, now, true});
}

void Window::creep() {
  const auto step = static_cast<uint64_t>(size_ / 4);
  for (Polled& polled : polled_) polled.handled = std::min(position_, polled.handled + step);
}

const Window::Poll* Window::find(TransferId number, bool is_file) const {
  const auto poll = std::find_if(polls_.begin(), polls_.end(), [&](const Poll& one) {
    return number != kNoTransfer && one.number == number && one.is_file == is_file;
  });
  return poll != polls_.end() ? &*poll : nullptr;
}

std::optional<uint64_t> Window::position_of(TransferId number) const {
  const Poll* const poll = find(number, false);
  return poll != nullptr ? std::optional(poll->position) : std::nullopt;
}

bool Window::answered(TransferId number, NodeIndex node, Time now) {
  const Poll* const poll = find(number, false);
  if (poll != nullptr) credit(*poll, node, now);
  return poll != nullptr;
}

void Window::reported(TransferId file, NodeIndex node, Time now) {
  if (const Poll* const expected = find(file, true)) credit(*expected, node, now);
}

void Window::credit(const Poll& poll, NodeIndex node, Time now) {
  const auto polled =
      std::find_if(polled_.begin(), polled_.end(), [&](const Polled& p) { return p.node == node; });
  if (polled == polled_.end()) return;
  const Time took = elapsed(now, poll.sent) + 1;
  round_trip_.sample(took);
  least_round_trip_ = std::min(least_round_trip_, took);
  const uint64_t before = handled();
  polled->handled = std::max(polled->handled, poll.position);
  repeats_ = 0;
  polled->excused_ = false;
  polled->unanswered = 0;
  polled->owes_since = polled->handled < asked_ ? asked_at_ : 0;
  const uint64_t after = handled();
  measure_rate(now);
  stragglers_.held_up_by(open() ? kNoNode : holder(), now);
  follow_judge();
  if (after > before) grow(after - before, took);
}

// --- Its size ---

// What is on its way when no queue stands: a rate that grows is followed at once.
double Window::pipe() const {
  if (least_round_trip_ == kNever) return 0;
  return std::max(rate_, latest_rate_) * static_cast<double>(least_round_trip_) / kSecond;
}

// What may stand in queues, and what is on its way. An answer that took so long tells of queues.
double Window::limit(Time took) const {
  const bool queued = took > least_round_trip_ + least_round_trip_ / 4;
  return std::min(kMaxQueued, ceiling_) + pipe() * (queued ? 1 : kTriedPipe);
}

// A smaller window than this is no trial: the way would run empty. During a trial the rate falls
// with the window, so what is on the way is what was there when it began.
double Window::least_trial() const {
  return std::max(kFirstSize / 2, pipe_before_ / 2);
}

void Window::grow(uint64_t handled, Time took) {
  if (ceiling_ != kNoCeiling && position_ - cured_at_ >= kCuredFor) {
    cured_at_ = position_;
    ceiling_ += ceiling_ / 8;
  }
  if (!std::exchange(limited_, false) || size_before_ != 0) return;
  size_ = std::max(size_, std::min(size_ + static_cast<double>(handled), limit(took)));
}

void Window::lost(NodeIndex node, uint32_t segments) {
  judge_.lost(node, segments);
  follow_judge();
}

void Window::follow_judge() {
  using Verdict = OverrunJudge::Verdict;
  if (size_before_ == 0) pipe_before_ = pipe();
  const double least = least_trial();
  const bool last_trial = size_ <= least;
  switch (judge_.judge(last_trial)) {
    case Verdict::kNone:
      return;
    case Verdict::kSuspected:
      if (size_before_ == 0) size_before_ = size_;
      size_ = std::max(kLeastSize, last_trial ? size_ / 2 : std::max(least, size_ / 2));
      return;
    case Verdict::kCured:
      ceiling_ = std::max(kLeastSize, size_ - pipe());
      cured_at_ = position_;
      size_before_ = 0;
      return;
    case Verdict::kGranted:
      size_ = std::exchange(size_before_, 0);
      return;
  }
}

}  // namespace pkgdist::lead
