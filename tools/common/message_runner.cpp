#include "message_runner.h"

#include <fmt/core.h>
#include <pthread.h>

#include <CLI/CLI.hpp>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

namespace pkgdist::cli {

namespace {

struct Message {
  std::string bytes;
  Environment environment;
};

}  // namespace

class MessageRunner::Impl {
 public:
  Impl(const RunnerOptions& options, Report report)
      : command_{options.command, options.limit_seconds, "--message-timeout"},
        report_(std::move(report)) {
    if (!command_.text.empty()) thread_ = std::thread([this] { run(); });
  }

  ~Impl() {
    if (!thread_.joinable()) return;
    {
      const std::lock_guard lock(mutex_);
      end_.set();
    }
    changed_.notify_one();
    thread_.join();
    if (!queue_.empty())
      report_(fmt::format("{} messages were not handed to '{}'", queue_.size(), command_.text));
  }

  void add(std::string_view bytes, Environment environment) {
    if (command_.text.empty() || take(bytes, environment)) return;
    report_(fmt::format("too many messages wait for '{}': one is dropped", command_.text));
  }

 private:
  bool take(std::string_view bytes, Environment& environment) {
    const std::lock_guard lock(mutex_);
    if (bytes.size() > kMaxQueuedBytes - queued_bytes_) return false;
    queued_bytes_ += bytes.size();
    queue_.push_back({std::string(bytes), std::move(environment)});
    changed_.notify_one();
    return true;
  }

  // --- On the thread ---

  // Waits for it; nothing at the end.
  std::optional<Message> next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return end_.is_set() || !queue_.empty(); });
    if (end_.is_set()) return std::nullopt;
    Message message = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= message.bytes.size();
    return message;
  }

  void run() {
    (void)pthread_setname_np(pthread_self(), "MESSAGES");
    while (const std::optional<Message> message = next()) {
      const ShellOutcome outcome = run_shell(command_, message->bytes, message->environment, end_);
      if (const std::string trouble = trouble_text(command_, outcome); !trouble.empty())
        report_(trouble);
    }
  }

  const ShellCommand command_;
  const Report report_;
  Interruption end_;
  std::mutex mutex_;  // of these
  std::condition_variable changed_;
  std::deque<Message> queue_;
  size_t queued_bytes_ = 0;
  std::thread thread_;
};

void add_runner_options(CLI::App& command, RunnerOptions& options, const std::string& help) {
  command.add_option("--on-message", options.command, help)->type_name("COMMAND");
  command
      .add_option("--message-timeout", options.limit_seconds,
                  "how long the command of --on-message may take for one message")
      ->type_name("SECONDS [300]")
      ->check(CLI::Range(0.1, 1e6));
}

MessageRunner::MessageRunner(const RunnerOptions& options, Report report)
    : impl_(std::make_unique<Impl>(options, std::move(report))) {}

MessageRunner::~MessageRunner() = default;

void MessageRunner::add(std::string_view bytes, Environment environment) {
  impl_->add(bytes, std::move(environment));
}

}  // namespace pkgdist::cli
