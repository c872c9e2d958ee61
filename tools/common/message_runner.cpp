#include "message_runner.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <pthread.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "counted.h"

namespace pkgdist::cli {

namespace {

struct Message {
  std::string bytes;
  Environment environment;
  std::string variable;  // names the file with the bytes; empty: they are the standard input
  MessageRunner::OnEnd on_end;
};

// A file with a name, for one command.
class NamedFile {
 public:
  // 0, or an errno value.
  int make(std::string_view bytes) {
    std::error_code error;
    path_ = std::filesystem::temp_directory_path(error).string() + "/pkgdist-XXXXXX";
    if (error) return error.value();
    const Fd file(::mkostemp(path_.data(), O_CLOEXEC));
    made_ = static_cast<bool>(file);
    return made_ && fill(file.get(), bytes) ? 0 : errno;
  }
  ~NamedFile() {
    if (made_) (void)::unlink(path_.c_str());
  }
  NamedFile() = default;
  NamedFile(const NamedFile&) = delete;
  NamedFile& operator=(const NamedFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  // False when there is no room for it.
  static bool fill(int file, std::string_view bytes) {
    for (size_t written = 0; written < bytes.size();) {
      const ssize_t some = ::write(file, bytes.data() + written, bytes.size() - written);
      if (some <= 0) return false;
      written += static_cast<size_t>(some);
    }
    return true;
  }

  std::string path_;
  bool made_ = false;
};

}  // namespace

class MessageRunner::Impl {
 public:
  Impl(const RunnerOptions& options, Report report)
      : command_{options.command, options.limit_seconds, options.limit_option},
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
      report_(fmt::format("{} not handed to '{}'",
                          counted(queue_.size(), "message was", "messages were"), command_.text));
  }

  void add(std::string_view bytes, Message message) {
    if (command_.text.empty() || take(bytes, message)) return;
    report(message, fmt::format("too many messages wait for '{}': one is dropped", command_.text));
  }

 private:
  bool take(std::string_view bytes, Message& message) {
    const std::lock_guard lock(mutex_);
    if (bytes.size() > kMaxQueuedBytes - queued_bytes_) return false;
    queued_bytes_ += bytes.size();
    message.bytes = bytes;
    queue_.push_back(std::move(message));
    changed_.notify_one();
    return true;
  }

  void report(const Message& message, const std::string& failure) const {
    report_(failure);
    if (message.on_end) message.on_end(failure);
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
    while (std::optional<Message> message = next()) run_for(*message);
  }

  void run_for(Message& message) {
    NamedFile file;
    ShellOutcome outcome;
    if (message.variable.empty()) {
      outcome = run_shell(command_, message.bytes, message.environment, end_);
    } else if (const int error = file.make(message.bytes); error != 0) {
      outcome = {ShellOutcome::End::kNotStarted, error};
    } else {
      message.environment.emplace_back(message.variable, file.path());
      outcome = run_shell(command_, "", message.environment, end_);
    }
    const std::string trouble = trouble_text(command_, outcome);
    if (outcome.end == ShellOutcome::End::kLeft) return report_(trouble);
    if (!trouble.empty()) return report(message, trouble);
    if (message.on_end) message.on_end("");
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

namespace {

void add_limit(CLI::App& command, RunnerOptions& options, const std::string& help) {
  command.add_option(options.limit_option, options.limit_seconds, help)
      ->type_name("SECONDS [300]")
      ->check(CLI::Range(0.1, 1e6));
}

}  // namespace

void add_runner_options(CLI::App& command, RunnerOptions& options, const std::string& help) {
  command.add_option("--on-message", options.command, help)->type_name("COMMAND");
  add_limit(command, options, "how long the command of --on-message may take for one message");
}

void add_completion_options(CLI::App& command, RunnerOptions& options, const std::string& help) {
  options.limit_option = "--complete-timeout";
  command.add_option("--on-complete", options.command, help)->type_name("COMMAND");
  add_limit(command, options, "how long the command of --on-complete may take for one push");
}

MessageRunner::MessageRunner(RunnerOptions options, Report report)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(report))) {}

MessageRunner::~MessageRunner() = default;

void MessageRunner::add(std::string_view bytes, Environment environment) {
  impl_->add(bytes,
             {.bytes = {}, .environment = std::move(environment), .variable = {}, .on_end = {}});
}

void MessageRunner::add_file(std::string_view bytes, Environment environment,
                             const std::string& variable, OnEnd on_end) {
  impl_->add(bytes, {.bytes = {},
                     .environment = std::move(environment),
                     .variable = variable,
                     .on_end = std::move(on_end)});
}

}  // namespace pkgdist::cli
