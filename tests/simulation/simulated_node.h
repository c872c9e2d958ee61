// A node of the simulation: a process with the real library, on a host with a disk that stays.
//
// The node carries datagrams between the cluster's network and its process and writes down what the
// library's caller did and was told; the judge reads that.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node_process.h"
#include "pkgdist_lead/transport.h"
#include "wire_frame.h"

namespace pkgdist::sim {

using test::Bytes;

// A directory of the simulation's own, in memory where the system has one there. It also holds the
// copies of the process's shared object.
class Workspace {
 public:
  explicit Workspace(std::filesystem::path process_object);
  ~Workspace();
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // For names of shared-memory objects, without a slash.
  std::string prefix() const { return path_.filename().string(); }

  // A process in a copy that no other process has; ended by kill() and unload().
  struct Loaded {
    size_t copy = 0;
    void* handle = nullptr;
    NodeProcess* process = nullptr;
  };
  Loaded load();
  void unload(const Loaded& loaded);

 private:
  std::filesystem::path object_;
  std::filesystem::path path_;
  std::vector<bool> taken_;  // by copy
};

// What outlives the processes of a host.
struct HostState {
  std::string directory;      // of the disk location, with its slash
  std::string memory_prefix;  // of the memory location
  uint64_t clock_ahead = 0;   // of the simulation's clock
  uint32_t lives = 0;         // processes that were started here
  bool killed = false;        // one of them in the middle of something
};

// What the caller of one process did and was told.
struct Diary {
  struct Request {
    std::string name;
    uint32_t location = 0;
    uint32_t xact = 0;
    bool cancelled = false;
    uint64_t accepted = 0;           // status of the call
    std::vector<uint64_t> outcomes;  // statuses of its callbacks
  };
  struct Pushed {  // a file of one of the lead's transactions
    uint32_t listed = 0;
    std::vector<uint64_t> outcomes;
  };
  struct Message {
    std::string bytes;
    uint64_t accepted = 0;
    std::vector<uint64_t> outcomes;
  };
  struct PushKey {
    uint32_t xact = 0;
    uint32_t location = 0;
    std::string name;
    auto operator<=>(const PushKey&) const = default;
  };

  std::map<uint32_t, Request> requests;  // by the simulation's number
  std::map<PushKey, Pushed> pushed;
  std::map<uint32_t, uint32_t> push_ends;    // by transaction
  std::map<uint32_t, Message> messages;      // to the lead, by the simulation's number
  std::map<std::string, uint32_t> received;  // messages of the lead: how often

  bool waits() const;  // for the outcome of something
};

// Told at once, because it is true only then.
class NodeWitness {
 public:
  virtual ~NodeWitness() = default;
  // A path of the host got a new file.
  virtual void appeared(size_t host, const std::string& path) = 0;
  virtual void file_ended(size_t host, const std::string& name, uint32_t location,
                          uint64_t status) = 0;
  virtual void stopping(size_t host) = 0;  // its data threads
  virtual void broke(size_t host, const std::string& what) = 0;
  // For the record of the run. `text` may be empty.
  virtual void noted(size_t host, uint64_t number, const std::string& text) = 0;
};

class SimulatedNode : private ProcessObserver {
 public:
  using Storage = HostState;
  using Send = std::function<void(lead::Channel, uint32_t lead, Bytes)>;

  struct Place {
    size_t host = 0;
    uint32_t address = 0;
    uint32_t pid = 0;
    uint64_t now = 0;
  };
  struct Habits {
    uint64_t seed = 0;
    uint32_t yields_per_mille = 0;
    uint64_t caller_lag = 0;
    bool forgets_at_once = false;
    uint32_t card_class = 7;
    bool texts = false;
  };

  SimulatedNode(const Place& place, const Habits& habits, HostState& state, Workspace& workspace,
                NodeWitness& witness, Send send);
  ~SimulatedNode() override;
  SimulatedNode(const SimulatedNode&) = delete;
  SimulatedNode& operator=(const SimulatedNode&) = delete;

  // What the cluster needs.
  void on_control(std::span<const uint8_t> bytes, uint64_t now, bool unicast);
  void on_data(std::span<const uint8_t> bytes, uint64_t now);
  void run(uint64_t now);
  uint64_t next_deadline() const;
  // Runs even when nothing is due: its clock shows `now` afterwards.
  void come_to(uint64_t now) {
    fresh_ = true;
    run(now);
  }

  // What a program of the library does, at the time of the last run().
  void get_file(uint32_t request, const std::string& name, uint32_t location, uint32_t type,
                uint32_t priority);
  void cancel(uint32_t request);
  void send(uint32_t message, std::string bytes, uint32_t msg_class);
  void run_callbacks() { loaded_.process->run_callbacks(); }

  const Diary& diary() const { return diary_; }
  Holdings holdings() const { return loaded_.process->holdings(); }
  uint32_t counter(Table table, uint32_t index) const {
    return loaded_.process->counter(table, index);
  }
  // After start-up: what a process at rest holds.
  const Holdings& at_rest() const { return at_rest_; }

 private:
  void sent(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) override;
  void appeared(const char* path) override;
  void logged(uint32_t point, const char* text) override;
  void stopping() override;
  void stuck(const char* why) override;
  void file_ended(uint64_t status, const char* path, uint32_t type, uint32_t location,
                  uint32_t xact, uint32_t request) override;
  void push_started(std::span<const char* const> paths, uint32_t location, uint32_t xact) override;
  void push_ended(uint64_t status, uint32_t xact) override;
  void message_received(uint32_t msg_class, std::span<const uint8_t> bytes) override;
  void message_ended(uint64_t status, uint32_t message) override;
  void lead_changed(uint32_t lead, uint32_t pid, bool failover) override;

  void note(uint64_t number, const std::string& text);

  const Place place_;
  const bool texts_;
  HostState& state_;
  Workspace& workspace_;
  NodeWitness& witness_;
  Send send_;
  Workspace::Loaded loaded_;
  Diary diary_;
  Holdings at_rest_;
  bool fresh_ = true;  // something to do that no deadline tells of
};

}  // namespace pkgdist::sim
