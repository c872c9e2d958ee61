// One node on the receive library: start-up from the options, the event loop, and how to be
// stopped.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "flush_service.h"
#include "node_options.h"
#include "partial_files.h"
#include "pkgdist/pkgdist_recv.h"

namespace pkgdist::node_program {

// Throws with a text that says what to look at when a call of the library fails.
void require(PkgdistStatus status, const char* what);

// How a node that receives pushes asks for what it lacks: missing segments again after
// `milliseconds`, at growing intervals and patiently, because the lead has a whole set of nodes to
// serve. To be called before the Node is made.
void set_repair_interval(uint32_t milliseconds);

class Node {
 public:
  // Starts both sides of the library and sets the storage locations. The process has one Node.
  explicit Node(const NodeOptions& options);
  // What is still being received is given up: its partial files go.
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  levm_handle_t loop() const { return loop_.get(); }

  // Runs callbacks until `done` says so, a signal asks to stop, or the time is over. True when
  // done.
  bool run_until(const std::function<bool()>& done, double seconds);

  // Runs callbacks until a signal asks to stop.
  void run();

  static bool interrupted();

  FlushService& flush_service() { return flush_service_; }
  PartialFiles& partial_files() { return partial_files_; }

 private:
  void set_location(const cli::Location& location);
  struct LoopDeleter {
    void operator()(levm_handle_t loop) const { levm_destroy(loop); }
  };
  struct NodeidDeleter {
    void operator()(nodeid_handle_t nodeid) const { nodeid_destroy(nodeid); }
  };
  std::unique_ptr<struct levm, LoopDeleter> loop_;
  std::unique_ptr<struct nodeid, NodeidDeleter> nodeid_;
  FlushService flush_service_;
  PartialFiles partial_files_;
};

}  // namespace pkgdist::node_program
