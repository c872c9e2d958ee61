// One node on the receive library: start-up from the options, the event loop, how to be stopped,
// and a network interface that goes away and comes back.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "flush_service.h"
#include "group_membership.h"
#include "network_interface.h"
#include "node_options.h"
#include "partial_files.h"
#include "pkgdist/pkgdist_recv.h"
#include "poller.h"
#include "storage_trouble.h"

namespace pkgdist::node_program {

// Throws with a text that says what to look at when a call of the library fails.
void require(PkgdistStatus status, const char* what);

// When a node that receives pushes asks again, at growing intervals and patiently, because the lead
// has a whole set of nodes to serve: for missing segments after `repair_interval_ms`, for an answer
// to its messages or the rest of the lead's after 100 ms, since the end of a push may wait for
// these. To be called before the Node is made.
void set_time_outs(uint32_t repair_interval_ms);

class Node {
 public:
  // Starts both sides of the library and sets the storage locations. The process has one Node.
  explicit Node(const NodeOptions& options);
  // What is still being received is given up: its partial files go, unless they belong to releases.
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  levm_handle_t loop() const { return loop_.get(); }

  // Runs callbacks until `done` says so, a signal asks to stop, or nothing was heard for so many
  // seconds. True when done. `heard`: a count that grows with everything that is waited for; null:
  // the time runs from the start.
  bool run_until(const std::function<bool()>& done, double silence_seconds,
                 const std::function<uint64_t()>& heard = nullptr);

  // Runs callbacks until a signal asks to stop.
  void run();

  static bool interrupted();

  // From now on the loop dispatches this poller, too, and calls `run` after every pass, once a
  // second at least.
  // Null: not any more.
  void run_beside(cli::Poller* poller, std::function<void()> run) {
    beside_ = poller;
    run_beside_ = std::move(run);
  }

  // What became of a file, in words, before what a failure leaves of it is removed and makes room.
  // From any thread.
  std::string file_ended(uint32_t location, const std::string& name, uint64_t status);
  FlushService& flush_service() { return flush_service_; }
  PartialFiles& partial_files() { return partial_files_; }
  const StorageTrouble& storage_trouble() const { return storage_trouble_; }

  // Called from the event loop when the interface of the node's address goes down, away or comes
  // back.
  std::function<void(const cli::InterfaceChange&)> on_interface;
  // The same when the groups cannot be joined on an interface that was made anew.
  std::function<void(const std::string&)> on_trouble;

 private:
  void set_location(const cli::Location& location);
  // Runs callbacks that are ready, or become ready within so many seconds; negative: without limit.
  // A stop signal ends the wait.
  void run_once(double seconds);
  void follow_interface();

  struct LoopDeleter {
    void operator()(levm_handle_t loop) const { levm_destroy(loop); }
  };
  struct NodeidDeleter {
    void operator()(nodeid_handle_t nodeid) const { nodeid_destroy(nodeid); }
  };
  std::unique_ptr<struct levm, LoopDeleter> loop_;
  std::unique_ptr<struct nodeid, NodeidDeleter> nodeid_;
  cli::InterfaceWatch interface_;  // since before the library joined the groups
  GroupMembership membership_;
  cli::Poller* beside_ = nullptr;
  std::function<void()> run_beside_;
  const bool keeps_partial_files_;  // those of releases are of use to the next process
  unsigned joined_ = 0;             // number of the interface on which the groups were joined last
  FlushService flush_service_;
  PartialFiles partial_files_;
  StorageTrouble storage_trouble_;
};

}  // namespace pkgdist::node_program
