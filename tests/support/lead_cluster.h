// A whole cluster under a virtual clock: the lead's real core, modelled nodes, a network in memory
// with a loss model for each node and direction. Time jumps from event to event.
#pragma once

#include <array>
#include <memory>
#include <queue>

#include "loss_model.h"
#include "memory_store.h"
#include "model_node.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::test {

inline constexpr uint32_t kLeadAddress = 0x0A000001;  // 10.0.0.1
inline constexpr uint32_t kLeadPid = 4711;

class LeadCluster : public lead::DatagramSink, public lead::Events {
 public:
  explicit LeadCluster(lead::Settings settings = default_settings())
      : settings_(settings), lead_(std::make_unique<lead::Lead>(settings, *this, store, *this)) {}

  static lead::Settings default_settings() {
    lead::Settings settings;
    settings.address = kLeadAddress;
    settings.pid = kLeadPid;
    settings.seed = 1;
    settings.rate_bits = 400'000'000;
    return settings;
  }

  // A host: its disk stays while its node process comes and goes.
  struct Host {
    uint32_t address = 0;
    uint32_t pid = 0;
    Disk disk;
    std::unique_ptr<ModelNode> node;  // null while no process runs
    Path down, up;
  };

  size_t add_host(bool running = true) {
    Host& host = *hosts_.emplace_back(std::make_unique<Host>());
    host.address = kLeadAddress + static_cast<uint32_t>(hosts_.size());
    if (running) start_node(hosts_.size() - 1);
    return hosts_.size() - 1;
  }
  void add_hosts(size_t count) {
    for (size_t i = 0; i < count; ++i) add_host();
  }
  void start_node(size_t index) {
    Host& host = *hosts_[index];
    host.pid = ++next_pid_;
    host.node = std::make_unique<ModelNode>(
        ModelNode::Identity{host.address, host.pid, static_cast<uint32_t>(index + 1) << 8, 7},
        host.disk,
        [this, index](ModelNode::To to, Bytes bytes) { from_node(index, to, std::move(bytes)); });
  }
  void stop_node(size_t index) { hosts_[index]->node.reset(); }

  // Random loss of what nodes receive and of what the lead receives.
  void set_loss(double down, double up, uint64_t seed) {
    for (size_t i = 0; i < hosts_.size(); ++i) {
      if (down > 0) hosts_[i]->down.with<RandomLoss>(down, seed * 1000 + i);
      if (up > 0) hosts_[i]->up.with<RandomLoss>(up, seed * 2000 + i);
    }
  }

  lead::Lead& lead() { return *lead_; }
  Host& host(size_t index) { return *hosts_[index]; }
  ModelNode& node(size_t index) { return *hosts_[index]->node; }
  size_t hosts() const { return hosts_.size(); }
  uint64_t now() const { return now_; }

  // Replaces the lead by a new process on the same address.
  void restart_lead(lead::Settings settings) {
    settings_ = settings;
    lead_ = std::make_unique<lead::Lead>(settings, *this, store, *this);
  }

  // Everything in the store, pushed to all hosts.
  lead::PushRequest push_all() const {
    lead::PushRequest request;
    for (const auto& [key, file] : store.files())
      request.files.push_back({key.substr(2), file.content.size()});
    request.node_count = static_cast<uint32_t>(hosts_.size());
    return request;
  }

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
  void run_for(uint64_t duration) {
    run_until([] { return false; }, duration);
  }
  bool run_push(lead::PushRequest request, uint64_t limit) {
    if (lead_->start_push(std::move(request), now_) != nullptr) return false;
    return run_until([&] { return !lead_->push_running(); }, limit);
  }

  // Every host has exactly what the store has.
  bool identical() const {
    for (const auto& host : hosts_)
      if (host->disk != store.files()) return false;
    return true;
  }

  struct Seen {
    size_t appeared = 0, restarted = 0, silent = 0, returned = 0, requested = 0, request_ended = 0;
    size_t acknowledged = 0;  // messages of the lead's owner, by nodes
    uint64_t last_request_status = 0;
  };
  const Seen& seen() const { return seen_; }
  uint64_t sent_to_group() const { return sent_; }
  // Sees every datagram of the lead before the network does.
  std::function<void(lead::Channel, uint32_t, std::span<const uint8_t>)> on_sent;

  MemoryStore store;

 private:
  static constexpr uint64_t kLatency = 200'000;  // ns, one way

  struct Packet {
    uint64_t at = 0;
    uint64_t order = 0;
    size_t host = 0;
    bool to_lead = false;
    lead::Channel channel = lead::Channel::kControl;
    std::shared_ptr<const Bytes> bytes;
    bool operator>(const Packet& other) const {
      return at != other.at ? at > other.at : order > other.order;
    }
  };

  std::span<uint8_t> buffer() override { return buffer_; }
  void send(lead::Channel channel, uint32_t destination, size_t length) override {
    ++sent_;
    if (on_sent) on_sent(channel, destination, {buffer_.data(), length});
    const auto bytes = std::make_shared<const Bytes>(
        buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(length));
    for (size_t i = 0; i < hosts_.size(); ++i)
      if (destination == lead::kGroup || destination == hosts_[i]->address)
        carry(i, false, channel, hosts_[i]->down, bytes);
  }
  void from_node(size_t index, ModelNode::To to, Bytes bytes) {
    const auto channel =
        to == ModelNode::To::kControl ? lead::Channel::kControl : lead::Channel::kData;
    carry(index, true, channel, hosts_[index]->up, std::make_shared<const Bytes>(std::move(bytes)));
  }
  void carry(size_t host, bool to_lead, lead::Channel channel, Path& path,
             const std::shared_ptr<const Bytes>& bytes) {
    const Fate fate = path.next();
    if (fate.dropped) return;
    for (int i = 0; i < fate.copies; ++i)
      packets_.push(
          {now_ + kLatency + fate.extra_delay_ns, ++order_, host, to_lead, channel, bytes});
  }

  void deliver(const Packet& packet) {
    Host& host = *hosts_[packet.host];
    if (packet.to_lead)
      lead_->on_datagram(packet.channel, *packet.bytes, host.address, now_);
    else if (host.node && packet.channel == lead::Channel::kControl)
      host.node->on_control(*packet.bytes, now_);
    else if (host.node)
      host.node->on_data(*packet.bytes, now_);
  }

  void step(uint64_t end) {
    uint64_t next = std::min(end, lead_->next_deadline(now_));
    for (const auto& host : hosts_)
      if (host->node) next = std::min(next, host->node->next_deadline());
    if (!packets_.empty()) next = std::min(next, packets_.top().at);
    now_ = std::max(next, now_);
    while (!packets_.empty() && packets_.top().at <= now_) {
      const Packet packet = packets_.top();
      packets_.pop();
      deliver(packet);
    }
    for (const auto& host : hosts_)
      if (host->node) host->node->run(now_);
    lead_->run(now_);
    // A lead that is due without getting on would stop the clock.
    if (lead_->next_deadline(now_) <= now_) ++now_;
  }

  void node_appeared(const lead::NodeInfo&) override { ++seen_.appeared; }
  void node_restarted(const lead::NodeInfo&) override { ++seen_.restarted; }
  void node_silent(const lead::NodeInfo&) override { ++seen_.silent; }
  void node_returned(const lead::NodeInfo&) override { ++seen_.returned; }
  void file_requested(const lead::NodeInfo&, uint32_t, const std::string&,
                      uint64_t status) override {
    ++seen_.requested;
    seen_.last_request_status = status;
  }
  void request_ended(const lead::NodeInfo&, uint32_t, const std::string&, uint64_t) override {
    ++seen_.request_ended;
  }

  void message_acknowledged(const lead::NodeInfo&, uint32_t) override { ++seen_.acknowledged; }

  lead::Settings settings_;
  uint64_t now_ = 1'000'000'000;
  uint64_t order_ = 0;
  uint64_t sent_ = 0;
  uint32_t next_pid_ = 100;
  std::array<uint8_t, 2048> buffer_{};
  std::vector<std::unique_ptr<Host>> hosts_;
  std::priority_queue<Packet, std::vector<Packet>, std::greater<>> packets_;
  Seen seen_;
  std::unique_ptr<lead::Lead> lead_;
};

// `size` bytes that differ from place to place and from seed to seed.
inline Bytes pattern(size_t size, uint64_t seed) {
  Bytes bytes(size);
  std::mt19937_64 random(seed);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

}  // namespace pkgdist::test
