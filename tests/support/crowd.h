// The lead's real core before a crowd of nodes, under a virtual clock: for questions of scale, up
// to thousands of nodes. Every node loses datagrams of its own, of what it receives and of what it
// sends, at a rate of its own; the network delays all by the same time. The control channel of each
// node is a ModelNode's, the data channel of all of them is CrowdFiles.
//
// A LeadCluster can do more (any loss model, several leads, restarts, content); this one is for
// numbers of datagrams that it could not carry.
#pragma once

#include <array>
#include <deque>
#include <memory>
#include <random>

#include "crowd_files.h"
#include "model_node.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::test {

// Files "f0", "f1", ... whose bytes follow from number and offset.
class FormulaStore : public lead::ContentStore {
 public:
  FormulaStore(uint32_t files, uint64_t size);

  int open(uint32_t location, const std::string& name, lead::FileAttributes& attributes,
           std::unique_ptr<lead::Content>& content) override;
  bool matches(const std::string& name, uint64_t offset, std::span<const uint8_t> bytes) const;
  lead::PushRequest push_all() const;

 private:
  class Reader;
  void fill(uint32_t file, uint64_t offset, std::span<uint8_t> out) const;
  // UINT32_MAX when there is no such file.
  uint32_t number_of(const std::string& name) const;

  const uint32_t files_;
  const uint64_t size_;
  std::vector<uint8_t> pattern_;
};

// Independent losses of many receivers, a draw for each lost datagram instead of for each datagram.
class CrowdLoss {
 public:
  explicit CrowdLoss(size_t receivers) : states_(receivers), until_(receivers, kNever) {}
  // From the next datagram on; below 1.
  void set(size_t receiver, double rate, uint64_t start);
  // Whether the receiver loses its next datagram.
  bool next(size_t receiver) {
    if (--until_[receiver] != 0) return false;
    until_[receiver] = draw(receiver);
    return true;
  }

 private:
  static constexpr uint64_t kNever = UINT64_MAX;
  struct State {
    double rate = 0;
    std::mt19937_64 random;
  };
  uint64_t draw(size_t receiver);

  std::vector<State> states_;
  std::vector<uint64_t> until_;  // datagrams up to the next lost one
};

// Is told when the lead's core begins and ends to work, and of pieces of the simulation inside.
class LeadWatch {
 public:
  virtual ~LeadWatch() = default;
  virtual void begin() {}
  virtual void end() {}
  virtual void pause() {}
  virtual void resume() {}
};

class Crowd : private lead::DatagramSink, private lead::Events {
 public:
  // `watch` may be null.
  Crowd(const lead::Settings& settings, FormulaStore& store, uint32_t nodes, LeadWatch* watch,
        const NodeTimeouts& timeouts = NodeTimeouts::of_the_library());

  static lead::Settings default_settings(uint64_t rate_bits);
  // Share of datagrams that the node loses of what it receives, and the network of what it sends.
  void set_loss(uint32_t node, double down, double up, uint64_t start);
  // One way, nanoseconds; before anything is sent.
  void set_latency(uint64_t latency) { latency_ = latency; }
  void start_node(uint32_t node);
  void start_all();

  const char* start_push(lead::PushRequest request);
  // Lets time pass until the condition holds; false when it does not within `limit`.
  template <class Condition>
  bool run_until(Condition&& condition, uint64_t limit) {
    const uint64_t end = now_ + limit;
    while (!condition()) {
      if (now_ >= end) return false;
      step(end);
    }
    return true;
  }

  const lead::Lead& lead() const { return *lead_; }
  const CrowdFiles& files() const { return files_; }
  uint64_t now() const { return now_; }

  struct Traffic {
    uint64_t datagrams_out = 0;  // of the lead
    uint64_t bytes_out = 0;      // UDP payload
    uint64_t datagrams_in = 0;   // that reached it
  };
  const Traffic& traffic() const { return traffic_; }

 private:
  static constexpr uint64_t kScanPeriod = 250'000'000;    // of a node's control thread
  static constexpr uint32_t kFirstAddress = 0x0A000002u;  // 10.0.0.2

  struct Down {  // of the lead
    uint64_t at = 0;
    lead::Channel channel = lead::Channel::kControl;
    uint32_t destination = 0;
    size_t length = 0;
    std::array<uint8_t, 2048> bytes{};
  };
  struct Up {  // of a node
    uint64_t at = 0;
    uint32_t node = 0;
    lead::Channel channel = lead::Channel::kControl;
    Bytes bytes;
  };

  std::span<uint8_t> buffer() override { return next_->bytes; }
  void send(lead::Channel channel, uint32_t destination, size_t length) override;
  void from_node(uint32_t node, lead::Channel channel, Bytes bytes);
  void deliver(const Down& down);
  void run_nodes();
  void scan_files();
  void run_lead();
  void step(uint64_t end);

  const uint32_t nodes_;
  LeadWatch* const watch_;
  LeadWatch no_watch_;
  CrowdLoss down_loss_, up_loss_;
  Disk disk_;  // stays empty
  std::vector<std::unique_ptr<ModelNode>> control_;
  CrowdFiles files_;
  std::deque<std::unique_ptr<Down>> downs_;
  std::vector<std::unique_ptr<Down>> spare_;
  std::unique_ptr<Down> next_ = std::make_unique<Down>();
  std::deque<Up> ups_;
  std::vector<uint8_t> got_;  // of the datagram being delivered, by node
  uint64_t latency_ = 200'000;
  uint64_t now_ = 1'000'000'000;
  uint64_t scans_ = 0;  // of single nodes, one after the other
  uint64_t next_scan_ = 0;
  const uint64_t file_scan_period_;
  uint64_t file_scans_ = 0;
  uint64_t next_file_scan_ = 0;
  Traffic traffic_;
  std::unique_ptr<lead::Lead> lead_;
};

}  // namespace pkgdist::test
