#include "message_runner.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "stop_signals.h"

namespace pkgdist::cli {

namespace {

using Clock = std::chrono::steady_clock;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

struct Message {
  std::string bytes;
  MessageRunner::Environment environment;
  std::string variable;  // names the file with the bytes; empty: they are the standard input
  MessageRunner::OnEnd on_end;
};

// Fills a file, to be read from its start. False when there is no room for it.
bool fill(int file, std::string_view bytes) {
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t some = ::write(file, bytes.data() + written, bytes.size() - written);
    if (some <= 0) return false;
    written += static_cast<size_t>(some);
  }
  return ::lseek(file, 0, SEEK_SET) == 0;
}

// A file with a name, for one command.
class NamedFile {
 public:
  // 0, or an errno value.
  int make(std::string_view bytes) {
    std::error_code error;
    path_ = std::filesystem::temp_directory_path(error).string() + "/pkgdist-XXXXXX";
    if (error) return error.value();
    const Descriptor file(::mkostemp(path_.data(), O_CLOEXEC));
    made_ = file.get() >= 0;
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
  std::string path_;
  bool made_ = false;
};

// "NAME=value", those of this program first unless the message has the name too.
std::vector<std::string> environment_of(const Message& message) {
  std::vector<std::string> all;
  for (const auto& [name, value] : message.environment) all.push_back(name + "=" + value);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    const std::string_view name = text.substr(0, text.find('='));
    const bool replaced = std::any_of(message.environment.begin(), message.environment.end(),
                                      [&](const auto& own) { return own.first == name; });
    if (!replaced) all.emplace_back(text);
  }
  return all;
}

// The shell in a process group of its own, with the usual signals: this program's threads keep some
// to themselves. An errno, or 0 and the child.
int spawn_shell(const std::string& command, const Message& message, int input, pid_t& child) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t set;
  sigemptyset(&set);
  posix_spawnattr_setsigmask(&attributes, &set);
  // The server of --metrics ignores broken pipes; a command shall not.
  sigaddset(&set, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &set);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  std::string shell = "sh", option = "-c", text = command;
  char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  std::vector<std::string> environment = environment_of(message);
  std::vector<char*> pointers;
  for (std::string& entry : environment) pointers.push_back(entry.data());
  pointers.push_back(nullptr);
  const int error =
      ::posix_spawn(&child, "/bin/sh", &files, &attributes, arguments, pointers.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return error;
}

}  // namespace

class MessageRunner::Impl {
 public:
  Impl(RunnerOptions options, Report report)
      : options_(std::move(options)),
        report_(std::move(report)),
        wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    if (!options_.command.empty()) thread_ = std::thread([this] { run(); });
  }

  ~Impl() {
    if (!thread_.joinable()) return;
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    wake();
    thread_.join();
    if (!queue_.empty())
      report_(fmt::format("{} messages were not handed to '{}'", queue_.size(), options_.command));
  }

  void add(std::string_view bytes, Message message) {
    if (options_.command.empty() || take(bytes, message)) return;
    report(message,
           fmt::format("too many messages wait for '{}': one is dropped", options_.command));
  }

 private:
  bool take(std::string_view bytes, Message& message) {
    const std::lock_guard lock(mutex_);
    if (bytes.size() > kMaxQueuedBytes - queued_bytes_) return false;
    queued_bytes_ += bytes.size();
    message.bytes = bytes;
    queue_.push_back(std::move(message));
    wake();
    return true;
  }

  void report(const Message& message, const std::string& failure) const {
    report_(failure);
    if (message.on_end) message.on_end(failure);
  }

  void wake() {
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
  }

  // --- On the thread ---

  bool ended() {
    const std::lock_guard lock(mutex_);
    return ended_;
  }

  std::optional<Message> next() {
    const std::lock_guard lock(mutex_);
    if (ended_ || queue_.empty()) return std::nullopt;
    Message message = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= message.bytes.size();
    return message;
  }

  void run() {
    (void)pthread_setname_np(pthread_self(), "MESSAGES");
    while (!ended()) {
      if (std::optional<Message> message = next())
        run_for(*message);
      else
        wait(-1, -1);
    }
  }

  // Until `fd` (-1: nothing) is readable, somebody calls wake(), or the time is over (-1: no
  // limit).
  void wait(int fd, int milliseconds) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (::poll(fds, 2, milliseconds) <= 0) return;
    uint64_t count = 0;
    if (fds[1].revents != 0) (void)!::read(wake_.get(), &count, sizeof count);
  }

  void run_for(Message& message) {
    const Descriptor input(::memfd_create("pkgdist-message", MFD_CLOEXEC));
    NamedFile file;
    pid_t child = 0;
    const bool named = !message.variable.empty();
    int error = input.get() >= 0 && fill(input.get(), named ? "" : message.bytes) ? 0 : errno;
    if (error == 0 && named) {
      error = file.make(message.bytes);
      message.environment.emplace_back(message.variable, file.path());
    }
    if (error == 0) error = spawn_shell(options_.command, message, input.get(), child);
    if (error != 0)
      return report(message, fmt::format("'{}' could not be started: {}", options_.command,
                                         std::strerror(error)));
    await(child, message);
  }

  void await(pid_t child, const Message& message) {
    constexpr int kLookMs = 20;  // where the system has no descriptors of processes
    const Descriptor end(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    auto deadline = Clock::now() + seconds(options_.limit_seconds);
    int ends_sent = 0;
    for (;;) {
      int status = 0;
      if (::waitpid(child, &status, WNOHANG) != 0) return tell(message, status, ends_sent != 0);
      if (ended()) return leave(child);
      if (Clock::now() >= deadline) {
        ::kill(-child, ends_sent++ == 0 ? SIGTERM : SIGKILL);
        deadline = Clock::now() + seconds(kKillSeconds);
      }
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      const auto wait_ms = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3'600'000));
      wait(end.get(), end.get() < 0 ? std::min(kLookMs, wait_ms) : wait_ms);
    }
  }

  void leave(pid_t child) {
    ::kill(-child, SIGTERM);
    report_(fmt::format("'{}' still runs: it is told to end (SIGTERM)", options_.command));
  }

  void tell(const Message& message, int status, bool too_long) {
    if (too_long)
      report(message, fmt::format("'{}' was ended: it took longer than {} s ({})", options_.command,
                                  options_.limit_seconds, options_.limit_option));
    else if (WIFSIGNALED(status))
      report(message,
             fmt::format("'{}' was ended by {}", options_.command, signal_name(WTERMSIG(status))));
    else if (WEXITSTATUS(status) != 0)
      report(message,
             fmt::format("'{}' ended with exit status {}", options_.command, WEXITSTATUS(status)));
    else if (message.on_end)
      message.on_end("");
  }

  static Clock::duration seconds(double value) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
  }

  const RunnerOptions options_;
  const Report report_;
  const Descriptor wake_;
  std::mutex mutex_;  // of these
  std::deque<Message> queue_;
  size_t queued_bytes_ = 0;
  bool ended_ = false;
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
