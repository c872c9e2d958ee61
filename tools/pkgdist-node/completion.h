// --on-complete: a shell command at the end of each push, with the names of the files that this
// node has of it.
//
// The names are those that the library has told as received, or as present already, since this
// process began: a process that is replaced in the middle of a push knows only its own. When the
// lead says that the push has ended, the command runs once; the lead is told how it ended, and when
// it asks again, that the command still runs.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "introduction.h"
#include "message_runner.h"

namespace pkgdist::node_program {

class Completion {
 public:
  // Pushes whose names are kept: one runs at a time, others were given up or belong to a lead that
  // is gone. And bytes of names; of a push with more, names are missing, and that is told.
  static constexpr size_t kMostPushes = 8;
  static constexpr size_t kMostBytes = size_t{32} << 20;

  Completion(cli::RunnerOptions options, cli::MessageRunner::Report report);

  // A file of a push ended well.
  void file_complete(uint32_t transaction, const std::string& name);
  // False when the question is about something else.
  bool take(const cli::NodeQuestion& question);

 private:
  // How a command ended: what the lead was told. The runner's thread sets it.
  struct Outcome {
    std::mutex mutex;
    std::optional<std::string> said;
  };
  struct Push {
    uint32_t transaction = 0;
    std::string names = {};  // each with a zero byte behind it
    bool too_many = false;
    std::shared_ptr<Outcome> outcome = {};  // since the command was handed its names
  };
  Push& push_of(uint32_t transaction);
  static void say(uint32_t question, const std::string& state);
  static void say_again(uint32_t question, Outcome& outcome);

  const bool wanted_;
  const cli::MessageRunner::Report report_;
  std::deque<Push> pushes_;  // the latest last
  cli::MessageRunner runner_;
};

}  // namespace pkgdist::node_program
