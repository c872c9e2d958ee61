#include "completion.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "lead_talk.h"

namespace pkgdist::node_program {

Completion::Completion(cli::RunnerOptions options, cli::MessageRunner::Report report)
    : wanted_(!options.command.empty()), report_(report), runner_(std::move(options), report) {}

Completion::Push& Completion::push_of(uint32_t transaction) {
  const auto found = std::find_if(pushes_.rbegin(), pushes_.rend(), [&](const Push& push) {
    return push.transaction == transaction;
  });
  if (found != pushes_.rend()) return *found;
  if (pushes_.size() == kMostPushes) pushes_.pop_front();
  pushes_.push_back({.transaction = transaction});
  return pushes_.back();
}

void Completion::file_complete(uint32_t transaction, const std::string& name) {
  if (!wanted_ || transaction == 0) return;
  Push& push = push_of(transaction);
  if (push.names.size() + name.size() < kMostBytes)
    push.names.append(name).push_back('\0');
  else if (!std::exchange(push.too_many, true))
    report_(
        fmt::format("--on-complete: more than {} MiB of names in transaction {}: some are left "
                    "out",
                    kMostBytes >> 20, transaction));
}

void Completion::say(uint32_t question, const std::string& state) {
  send_to_lead(cli::answer_text({.number = question, .states = {state}}));
}

// The question has come again: doubled by the network, or because the answer takes long.
void Completion::say_again(uint32_t question, Outcome& outcome) {
  const std::lock_guard lock(outcome.mutex);
  if (outcome.said)
    say(question, *outcome.said);
  else
    send_to_lead(cli::working_text(question));
}

bool Completion::take(const cli::NodeQuestion& question) {
  if (question.kind != cli::NodeQuestion::Kind::kComplete) return false;
  if (!wanted_) {
    say(question.number, cli::kStateDone);
    return true;
  }
  Push& push = push_of(question.transaction);
  if (push.outcome) {
    say_again(question.number, *push.outcome);
    return true;
  }
  push.outcome = std::make_shared<Outcome>();
  const std::string names = std::exchange(push.names, {});
  runner_.add_file(names,
                   {{"PKGDIST_STATUS", std::to_string(question.status)},
                    {"PKGDIST_TRANSACTION", std::to_string(question.transaction)},
                    {"PKGDIST_LOCATION", std::to_string(question.location)}},
                   "PKGDIST_NAMES_FILE",
                   [number = question.number, outcome = push.outcome](const std::string& failure) {
                     const std::lock_guard lock(outcome->mutex);
                     outcome->said = failure.empty() ? cli::kStateDone : failure;
                     say(number, *outcome->said);
                   });
  return true;
}

}  // namespace pkgdist::node_program
