#include "release_survey.h"

#include <algorithm>

#include "answer_watch.h"
#include "order_numbers.h"
#include "pkgdist_lead/udp_transport.h"
#include "release_course.h"

namespace pkgdist::lead_program {

namespace {

using cli::ReleaseOrder;
using cli::ReleasePhase;
using cli::ReleaseState;

// One survey under way.
class ReleaseInquiry {
 public:
  ReleaseInquiry(const ReleaseSurvey& what, ReleaseLink& link, const HeardNodes& heard)
      : what_(what),
        link_(link),
        watch_(ReleasePush::kAskAgain, what.silence),
        first_(first_order_number()),
        number_(first_),
        names_(heard.names) {
    link_.on_state = [this](uint32_t node, const ReleaseState& state) { take(node, state); };
  }
  ~ReleaseInquiry() { link_.on_state = nullptr; }
  ReleaseInquiry(const ReleaseInquiry&) = delete;
  ReleaseInquiry& operator=(const ReleaseInquiry&) = delete;

  // False when a signal came first.
  bool run(const std::vector<uint32_t>& nodes) {
    watch_.begin(nodes, lead::monotonic_now());
    order(nodes, first_order());
    while (watch_.waits()) {
      if (!link_.wait([this] { return !watch_.waits(); }, watch_.deadline())) return false;
      (void)watch_.take_silent(lead::monotonic_now());
      ask_again();
    }
    return true;
  }

  std::map<uint32_t, ReleaseState> take_answers() { return std::move(answers_); }

 private:
  void take(uint32_t node, const ReleaseState& state) {
    if (state.location != what_.location || !watch_.waits_for(node)) return;
    watch_.heard(node, lead::monotonic_now());
    verifying_[node] = state.phase == ReleasePhase::kVerifying;
    if (state.number < first_) return;
    // It refuses the order, and names the releases that it takes.
    if (std::string& name = names_[node];
        state.phase == ReleasePhase::kRefused && !state.current && name != state.name) {
      name = state.name;
      return order({node}, first_order());
    }
    if (!is_answer(state)) return;
    answers_[node] = state;
    watch_.answered(node);
  }

  bool is_answer(const ReleaseState& state) const {
    if (!what_.verify || state.phase == ReleasePhase::kRefused) return true;
    const bool works =
        state.phase == ReleasePhase::kVerifying || state.phase == ReleasePhase::kChecking;
    return !works && (state.drifted || !state.current);
  }

  ReleaseOrder first_order() const {
    return what_.verify ? ReleaseOrder::kVerify : ReleaseOrder::kState;
  }

  // One that does not verify has not heard the order.
  void ask_again() {
    std::vector<uint32_t> idle, working;
    for (const uint32_t node : watch_.take_due(lead::monotonic_now()))
      (what_.verify && !verifying_[node] ? idle : working).push_back(node);
    order(idle, ReleaseOrder::kVerify);
    order(working, ReleaseOrder::kState);
  }

  void order(const std::vector<uint32_t>& nodes, ReleaseOrder what) {
    if (nodes.empty()) return;
    std::map<std::string, std::vector<uint32_t>> by_name;
    for (const uint32_t node : nodes) by_name[names_[node]].push_back(node);
    for (const auto& [name, takers] : by_name) {
      cli::ReleaseQuestion question;
      question.number = number_++;
      question.location = what_.location;
      question.name = name;
      question.order = what;
      link_.order(question, takers);
    }
  }

  const ReleaseSurvey& what_;
  ReleaseLink& link_;
  AnswerWatch watch_;
  const uint32_t first_;
  uint32_t number_;
  std::map<uint32_t, std::string> names_;  // of their releases; empty: not known yet
  std::map<uint32_t, bool> verifying_;
  std::map<uint32_t, ReleaseState> answers_;
};

}  // namespace

std::optional<std::map<uint32_t, ReleaseState>> ReleaseSurvey::ask(
    ReleaseLink& link, const HeardNodes& heard, const std::vector<uint32_t>& nodes) const {
  std::vector<uint32_t> takers;
  for (const uint32_t node : nodes)
    if (heard.takes(node)) takers.push_back(node);
  ReleaseInquiry inquiry(*this, link, heard);
  if (!inquiry.run(takers)) return std::nullopt;
  return inquiry.take_answers();
}

}  // namespace pkgdist::lead_program
