#include "release_service.h"

#include <fmt/core.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "installer_places.h"
#include "introduction.h"

namespace pkgdist::node_program {

namespace {

using cli::ReleaseOrder;
using cli::ReleasePhase;
using cli::ReleaseQuestion;
using cli::ReleaseState;

ReleasePhase phase_of(ReleaseOrder order) {
  return order == ReleaseOrder::kActivate ? ReleasePhase::kActivating
         : order == ReleaseOrder::kVerify ? ReleasePhase::kVerifying
                                          : ReleasePhase::kChecking;
}

ReleasePhase phase_of(ReleaseCommand command) {
  return command == ReleaseCommand::kVerify      ? ReleasePhase::kVerifying
         : command == ReleaseCommand::kDowngrade ? ReleasePhase::kChecking
                                                 : ReleasePhase::kActivating;
}

bool is_at_work(ReleasePhase phase) {
  return phase == ReleasePhase::kChecking || phase == ReleasePhase::kActivating ||
         phase == ReleasePhase::kVerifying;
}

void carry_out(const ReleaseQuestion& question, ReleaseHandler& handler) {
  switch (question.order) {
    case ReleaseOrder::kCheck:
      return handler.check(question.release);
    case ReleaseOrder::kFetched:
      return handler.fetched(question.release);
    case ReleaseOrder::kActivate:
      return handler.activate(question.release);
    case ReleaseOrder::kVerify:
      return handler.verify();
    case ReleaseOrder::kState:
      return;
  }
}

void carry_out(const OwnersOrder& order, ReleaseHandler& handler) {
  switch (order.command) {
    case ReleaseCommand::kActivate:
      return handler.activate(std::nullopt);
    case ReleaseCommand::kRollback:
      return handler.roll_back(order.force ? release::Installer::RollBack::kForced
                                           : release::Installer::RollBack::kWhenWhole);
    case ReleaseCommand::kVerify:
      return handler.verify();
    case ReleaseCommand::kDowngrade:
      return handler.allow(order.version);
    case ReleaseCommand::kStatus:
      return;
  }
}

}  // namespace

ReleaseService::ReleaseService(const ReleaseOptions& options, ReleasePlace place)
    : options_(options),
      place_(std::move(place)),
      installer_(
          std::make_shared<release::Installer>(place_.installer, release::Disk([this](const char*) {
                                                 if (ending_ && may_interrupt_) throw Interrupted();
                                               }))),
      handler_(
          installer_, [this](uint64_t version) { return check_health(version); },
          [this](const ReleaseState& state) { changed(state); }),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  try {
    installer_->recover();
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("--releases: '{}': {}", place_.directory, error.what()));
  }
  state_ = handler_.state();
  state_.phase = ReleasePhase::kChecking;  // resume() comes first
}

void ReleaseService::stop() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  end_.set();
  more_.notify_one();
  thread_.join();
}

void ReleaseService::start(Reports reports) {
  reports_ = std::move(reports);
  thread_ = std::thread([this] { work(); });
}

// --- From other threads ---

bool ReleaseService::on_message(uint32_t msg_class, std::span<const uint8_t> bytes) {
  if (msg_class != cli::kProgramClass) return false;
  const std::optional<ReleaseQuestion> question = cli::parse_release_order(bytes);
  if (!question) return false;
  const std::lock_guard lock(mutex_);
  ReleaseState answer;
  if (question->location != options_.location) {
    answer = refusal(*question, fmt::format("location {} takes no releases", question->location));
  } else if (question->name != options_.name) {
    answer = refusal(*question, fmt::format("this node takes releases of '{}'", options_.name));
  } else if (orders_.size() >= kMaxOrders) {
    answer = refusal(*question, "too many orders wait");
  } else {
    state_.number = question->number;
    if (question->order != ReleaseOrder::kState && !is_under_way(*question))
      add({phase_of(question->order),
           [this, order = *question] { node_program::carry_out(order, handler_); },
           *question,
           {}});
    answer = told();
  }
  reports_.send(cli::release_state_text(answer));
  return true;
}

// A lead that hears no answer asks again.
bool ReleaseService::is_under_way(const ReleaseQuestion& question) const {
  const auto is_same = [&](const std::optional<ReleaseQuestion>& other) {
    return other && other->order == question.order && other->release == question.release;
  };
  return (is_at_work(state_.phase) && is_same(running_)) ||
         std::any_of(orders_.begin(), orders_.end(),
                     [&](const Order& one) { return is_same(one.question); });
}

void ReleaseService::add(Order order) {
  orders_.push_back(std::move(order));
  more_.notify_one();
}

ReleaseState ReleaseService::refusal(const ReleaseQuestion& question,
                                     const std::string& why) const {
  ReleaseState state;
  state.number = question.number;
  state.location = question.location;
  state.name = options_.name;
  state.phase = ReleasePhase::kRefused;
  state.problem = why;
  return state;
}

std::future<ReleaseState> ReleaseService::command(const OwnersOrder& owners) {
  Order order{phase_of(owners.command),
              [this, owners] { node_program::carry_out(owners, handler_); },
              std::nullopt,
              {}};
  std::future<ReleaseState> done = order.done.get_future();
  const std::lock_guard lock(mutex_);
  if (orders_.size() >= kMaxOrders) throw std::runtime_error("too many orders wait");
  add(std::move(order));
  return done;
}

void ReleaseService::file_ended(uint32_t location, const std::string& path,
                                const std::string& trouble) {
  if (location != options_.location ||
      installer_->ask(path, std::nullopt) != release::Installer::kAccept)
    return;
  const std::lock_guard lock(mutex_);
  if (!trouble.empty()) {
    file_trouble_ = path + ": " + trouble;
    return;
  }
  if (file_trouble_.starts_with(path + ": ")) file_trouble_.clear();
  if (!known_arrivals_.insert(path).second) return;
  arrivals_.push_back(path);
  more_.notify_one();
}

ReleaseState ReleaseService::state() const {
  const std::lock_guard lock(mutex_);
  return told();
}

ReleaseState ReleaseService::told() const {
  ReleaseState state = state_;
  state.serial = ++serial_;
  state.location = options_.location;
  state.name = options_.name;
  if (!orders_.empty()) {
    state.phase = orders_.front().phase;
    state.problem.clear();
  }
  state.files.clear();
  if (state.phase != ReleasePhase::kFetching) return state;
  state.missing = installer_->missing();
  state.files = installer_->missing_files();
  if (state.problem.empty()) state.problem = file_trouble_;
  return state;
}

void ReleaseService::take_wake() const {
  uint64_t count = 0;
  (void)!::read(wake_.get(), &count, sizeof count);
}

// --- On the thread ---

void ReleaseService::work() {
  (void)pthread_setname_np(pthread_self(), "RELEASES");
  try {
    handler_.resume();
    std::optional<Order> order;
    std::vector<std::string> paths;
    while (next(order, paths)) {
      if (order)
        carry_out(*std::exchange(order, std::nullopt));
      else
        handler_.arrived(paths);
    }
  } catch (const Interrupted&) {
  }
}

void ReleaseService::carry_out(Order order) {
  const uint64_t one = 1;
  may_interrupt_ = order.phase != ReleasePhase::kActivating;
  order.run();
  may_interrupt_ = true;
  ReleaseState state = handler_.state();
  state.location = options_.location;
  state.name = options_.name;
  order.done.set_value(state);
  (void)!::write(wake_.get(), &one, sizeof one);
  const std::lock_guard lock(mutex_);
  running_.reset();
}

// Orders first: they are waited for, and take what has arrived by themselves. False at the end.
bool ReleaseService::next(std::optional<Order>& order, std::vector<std::string>& paths) {
  std::unique_lock lock(mutex_);
  more_.wait(lock, [this] { return ending_ || !orders_.empty() || !arrivals_.empty(); });
  if (ending_) return false;
  if (!orders_.empty()) {
    order = std::move(orders_.front());
    orders_.pop_front();
    running_ = order->question;
    state_.phase = order->phase;
    state_.problem.clear();
    if (running_ && running_->order == ReleaseOrder::kCheck) file_trouble_.clear();
    return true;
  }
  paths.clear();
  while (!arrivals_.empty() && paths.size() < release::Installer::kBatch) {
    paths.push_back(std::move(arrivals_.front()));
    arrivals_.pop_front();
    known_arrivals_.erase(paths.back());
  }
  return true;
}

void ReleaseService::changed(const ReleaseState& state) {
  const std::lock_guard lock(mutex_);
  const uint32_t number = state_.number;
  state_ = state;
  state_.number = number;
  const ReleaseState now = told();
  reports_.send(cli::release_state_text(now));
  reports_.on_state(now);
}

// The command finds the release under `current`.
std::string ReleaseService::check_health(uint64_t version) const {
  if (options_.health.empty()) return "";
  const cli::ShellCommand command{options_.health, options_.health_seconds, "--health-timeout"};
  const cli::Environment environment{
      {"PKGDIST_RELEASE_NAME", options_.name},
      {"PKGDIST_RELEASE_VERSION", std::to_string(version)},
      {"PKGDIST_RELEASE_DIRECTORY", place_.directory + "/" + release::kCurrent}};
  return cli::trouble_text(command, cli::run_shell(command, "", environment, end_));
}

}  // namespace pkgdist::node_program
