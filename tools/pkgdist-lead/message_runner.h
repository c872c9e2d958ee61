// --on-message: runs a command for each message of a node, one after the other, without ever
// keeping the lead waiting. The message is the command's standard input, by a file in memory.
#pragma once

#include <sys/types.h>

#include <deque>
#include <span>
#include <string>
#include <vector>

#include "pkgdist_lead/node_info.h"
#include "poller.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class MessageRunner {
 public:
  // An empty command: messages are only reported.
  MessageRunner(std::string command, Poller& poller, Reporter& reporter);
  ~MessageRunner();
  MessageRunner(const MessageRunner&) = delete;
  MessageRunner& operator=(const MessageRunner&) = delete;

  void add(const lead::NodeInfo& node, uint32_t msg_class, std::span<const uint8_t> bytes);

 private:
  struct Waiting {
    uint32_t node = 0;
    uint32_t msg_class = 0;
    std::vector<uint8_t> bytes;
  };

  void start_next();
  bool start(const Waiting& message);
  void on_ended();

  const std::string command_;
  Poller& poller_;
  Reporter& reporter_;
  std::deque<Waiting> queue_;
  size_t queued_bytes_ = 0;
  pid_t child_ = 0;
  Fd child_end_;  // readable when the child has ended
};

}  // namespace pkgdist::lead_program
