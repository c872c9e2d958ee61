// The system around a simulated process: what the library's system calls end up in.
//
// The calls are redirected by the linker (process_calls.cpp). Sockets, threads, waiting and the
// clock are the simulation's. Files, event descriptors, mappings and memory are the real ones, with
// a record of what is open, so that a killed process leaves nothing but its files.
#pragma once

#include <map>
#include <set>
#include <unordered_map>

#include "node_process.h"
#include "process_sockets.h"
#include "process_threads.h"

namespace pkgdist::sim {

class System {
 public:
  System(const ProcessSettings& settings_, ProcessObserver& observer_)
      : settings(settings_),
        observer(observer_),
        threads(settings_.seed, settings_.yields_per_mille) {}
  ~System();
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  // The caller's loop has something to run; it does so within the caller's lag.
  void callback_queued();

  const ProcessSettings settings;
  ProcessObserver& observer;
  Threads threads;
  Sockets sockets;
  uint64_t callbacks_due = kNever;

  enum class Origin : uint8_t { kMalloc, kNew };
  std::unordered_map<void*, Origin> blocks;
  std::set<int> descriptors;
  std::map<void*, size_t> mappings;
  size_t identities = 0;
};

// Of this copy; null before the process starts and after it was killed.
extern System* process_system;

}  // namespace pkgdist::sim
