// One shell command with a time limit, on the thread of the caller.
//
// It runs in a process group of its own, with the usual signals, and reads its input from a file in
// memory. One that takes longer than the limit is ended with all processes of its group: SIGTERM,
// and SIGKILL after kKillSeconds.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "poller.h"

namespace pkgdist::cli {

// From SIGTERM to SIGKILL.
inline constexpr double kKillSeconds = 2;

// Names and values, beside the environment of this program.
using Environment = std::vector<std::pair<std::string, std::string>>;

// Tells a thread that waits to stop waiting, for good. From any thread.
class Interruption {
 public:
  Interruption();
  void set();
  bool is_set() const;
  int fd() const { return event_.get(); }  // readable once it is set

 private:
  Fd event_;
};

struct ShellCommand {
  std::string text;
  double limit_seconds = 0;
  const char* limit_option = "";  // for messages: "--message-timeout"
};

struct ShellOutcome {
  enum class End { kExited, kSignalled, kTooLong, kNotStarted, kLeft };
  End end = End::kExited;
  int value = 0;  // exit status, signal or errno
  bool succeeded() const { return end == End::kExited && value == 0; }
};

// Returns when the command has ended. When it is interrupted, the command gets SIGTERM and is left.
ShellOutcome run_shell(const ShellCommand& command, std::string_view input,
                       const Environment& environment, const Interruption& interruption);

// "'COMMAND' ended with exit status 7"; empty when it succeeded.
std::string trouble_text(const ShellCommand& command, const ShellOutcome& outcome);

}  // namespace pkgdist::cli
