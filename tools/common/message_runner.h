// --on-message and --on-complete: runs a shell command for each message or push, one after the
// other, on a thread of its own, so that neither a lead nor a node ever waits for a command. The
// message is the command's standard input. A command that fails or takes longer than the time limit
// is reported (shell_command.h).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "cli_common.h"
#include "shell_command.h"

namespace pkgdist::cli {

struct RunnerOptions {
  std::string command;  // empty: messages are not handed to anything
  double limit_seconds = 300;
  const char* limit_option = "--message-timeout";
};

// Adds --on-message and --message-timeout. `help` says what the command gets.
void add_runner_options(CLI::App& command, RunnerOptions& options, const std::string& help);
// Adds --on-complete and --complete-timeout.
void add_completion_options(CLI::App& command, RunnerOptions& options, const std::string& help);

class MessageRunner {
 public:
  // Bytes of messages that may wait while a command runs; more are told and dropped.
  static constexpr size_t kMaxQueuedBytes = size_t{64} << 20;

  // Hears what went wrong; on the runner's thread, or on that of the caller of add().
  using Report = std::function<void(const std::string&)>;

  MessageRunner(RunnerOptions options, Report report);
  // Sends a command that runs SIGTERM, without waiting for it, and drops the messages that wait;
  // both is reported.
  ~MessageRunner();
  MessageRunner(const MessageRunner&) = delete;
  MessageRunner& operator=(const MessageRunner&) = delete;

  // Hears how a command ended: empty when its exit status was 0, else what the report says. Not
  // called for what the end of this object drops.
  using OnEnd = std::function<void(const std::string& failure)>;

  // The message is copied only when it finds room: it may have any size.
  void add(std::string_view bytes, Environment environment);
  // The bytes are in a file instead, which goes when the command has ended; `variable` of its
  // environment has the path.
  void add_file(std::string_view bytes, Environment environment, const std::string& variable,
                OnEnd on_end);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pkgdist::cli
