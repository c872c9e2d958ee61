// One process of a node, as the simulation sees it from outside.
//
// The receive library keeps its state in globals: a process is one node. The simulation has several
// nodes in one process of its own, so the library, the platform it stands on and a small system
// around it are one shared object, of which every node loads a private copy. This header is the
// whole contract between a copy and the simulation. Everything runs on the simulation's thread.
//
// Inside, the library is the real one down to its thread bodies: they run as coroutines and give
// way where a thread would wait (select, condition, sleep, mutex). Sockets are queues; the clock is
// the simulation's; files, event loops and callback channels are the system's and the platform's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace pkgdist::sim {

// Groups and ports that all nodes use.
inline constexpr uint32_t kCtrlGroup = 0xEFFF4701;
inline constexpr uint32_t kDataGroup = 0xEFFF4702;
inline constexpr uint16_t kCtrlPort = 7100;
inline constexpr uint16_t kDataPort = 7101;
inline constexpr uint16_t kLeadPort = 7102;
inline constexpr uint16_t kNodePort = 7103;
inline constexpr uint16_t kRequestPort = 7104;

inline constexpr uint32_t kDiskLocation = 1;
inline constexpr uint32_t kMemoryLocation = 2;

inline constexpr uint64_t kNever = UINT64_MAX;

// What happens in a process. Calls come from inside NodeProcess::start(), run() and calls of the
// library's interface; they may not call back into the process. Strings and bytes are only lent.
class ProcessObserver {
 public:
  virtual ~ProcessObserver() = default;

  virtual void sent(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) = 0;
  // A path got a new file: by a rename, a link, or because it was opened for writing.
  virtual void appeared(const char* path) = 0;
  // A statement of the library: its number, and its text when texts were asked for, else null.
  virtual void logged(uint32_t point, const char* text) = 0;
  // The data threads were asked to end and have not ended yet: the moment to begin something.
  virtual void stopping() = 0;
  // The process cannot go on as a real one would: all threads wait for each other.
  virtual void stuck(const char* why) = 0;

  // What the library's caller was told. `request` is 0 for files that the lead pushes.
  virtual void file_ended(uint64_t status, const char* path, uint32_t type, uint32_t location,
                          uint32_t xact, uint32_t request) = 0;
  virtual void push_started(std::span<const char* const> paths, uint32_t location,
                            uint32_t xact) = 0;
  virtual void push_ended(uint64_t status, uint32_t xact) = 0;
  virtual void message_received(uint32_t msg_class, std::span<const uint8_t> bytes) = 0;
  virtual void message_ended(uint64_t status, uint32_t message) = 0;
  virtual void lead_changed(uint32_t lead, uint32_t pid, bool failover) = 0;
};

struct ProcessSettings {
  uint32_t address = 0;
  uint32_t pid = 0;
  uint32_t node_id[3] = {};
  uint32_t card_class = 0;
  const char* directory = nullptr;      // of kDiskLocation, with its slash
  const char* memory_prefix = nullptr;  // of kMemoryLocation
  uint64_t now = 0;                     // the node's clock, nanoseconds
  uint64_t seed = 0;                    // of all choices that a scheduler makes
  // A thread gives way before so many of 1000 locks: others run between its steps.
  uint32_t yields_per_mille = 0;
  bool forgets_at_once = false;  // files that ended: the data threads come and go often
  uint64_t caller_lag = 0;       // nanoseconds at most until the caller's loop runs its callbacks
  bool texts = false;            // render the log
};

// How much of everything a process holds.
struct Holdings {
  uint32_t files_received = 0, files_remembered = 0;  // entries of the file databases
  uint32_t messages_received = 0, messages_sent = 0;  // entries of the control databases
  uint32_t ctrl_clients = 0, data_clients = 0;        // contexts
  uint32_t ctrl_channels = 0, data_channels = 0;
  size_t threads = 0;      // of the library
  size_t descriptors = 0;  // files and event descriptors
  size_t mappings = 0;
  size_t blocks = 0;      // of memory
  size_t identities = 0;  // node identities made for leads; the library keeps them
  uint32_t lead = 0;      // that it follows
};

enum class Table : uint8_t { kCtrlTransport, kCtrlServer, kDataTransport, kDataServer };

class NodeProcess {
 public:
  virtual ~NodeProcess() = default;

  // Does what a program of the library does first: start-up of both sides, handlers, locations.
  // The status of the first call that failed, or 0.
  virtual uint64_t start(const ProcessSettings& settings, ProcessObserver& observer) = 0;

  // A datagram for an address and port; it waits in the socket until the process runs.
  virtual void deliver(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) = 0;
  // Lets every thread go on until all wait.
  virtual void run(uint64_t now) = 0;
  // When a thread has work; kNever is possible only for a process that has ended.
  virtual uint64_t next_wake() const = 0;

  // Calls of the library's interface on the caller's thread. Each returns the call's status;
  // `request` and `message` come back with the outcome.
  virtual uint64_t get_file(const char* path, uint32_t type, uint32_t location, uint32_t priority,
                            uint32_t request, uint32_t& xact) = 0;
  virtual uint64_t cancel(uint32_t xact) = 0;
  virtual uint64_t send(std::span<const uint8_t> bytes, uint32_t msg_class, uint32_t message) = 0;
  // Runs the caller's loop now, whatever its lag.
  virtual void run_callbacks() = 0;

  virtual uint32_t counter(Table table, uint32_t index) const = 0;
  virtual Holdings holdings() const = 0;

  // Ends the process like kill -9: threads stop where they are, descriptors close, memory goes.
  // Nothing may be called afterwards; the object is gone.
  virtual void kill() = 0;
};

// The one symbol that a copy exports.
inline constexpr char kMakeProcess[] = "pkgdist_make_node_process";
using MakeProcess = NodeProcess* (*)();

}  // namespace pkgdist::sim
