#include "answer_watch.h"

namespace pkgdist::lead_program {

void AnswerWatch::begin(const std::vector<uint32_t>& nodes, lead::Time now) {
  waiting_.clear();
  for (const uint32_t node : nodes) waiting_[node] = {now, now};
}

void AnswerWatch::heard(uint32_t node, lead::Time now) {
  if (const auto found = waiting_.find(node); found != waiting_.end()) found->second = {now, now};
}

std::vector<uint32_t> AnswerWatch::take_due(lead::Time now) {
  std::vector<uint32_t> due;
  for (auto& [node, wait] : waiting_) {
    if (lead::elapsed(now, wait.asked) < ask_again_) continue;
    wait.asked = now;
    due.push_back(node);
  }
  return due;
}

std::vector<uint32_t> AnswerWatch::take_silent(lead::Time now) {
  std::vector<uint32_t> silent;
  for (const auto& [node, wait] : waiting_)
    if (lead::elapsed(now, wait.heard) >= silence_) silent.push_back(node);
  for (const uint32_t node : silent) waiting_.erase(node);
  return silent;
}

lead::Time AnswerWatch::deadline() const {
  lead::Time deadline = lead::kNever;
  for (const auto& [node, wait] : waiting_)
    deadline = std::min({deadline, wait.asked + ask_again_, wait.heard + silence_});
  return deadline;
}

}  // namespace pkgdist::lead_program
