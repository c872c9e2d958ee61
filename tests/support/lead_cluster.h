// A whole cluster under a virtual clock: the lead's real core, nodes, a network in memory with a
// loss model for each node and direction. Time jumps from event to event.
//
// A cluster is made of one kind of node: modelled ones (LeadCluster, below) or the real library.
// A kind brings
//   Storage                 what outlives the node's process
//   on_control, on_data     a datagram that arrives
//   run, next_deadline      time
// and a maker that starts a process on a host.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <queue>
#include <set>
#include <vector>

#include "loss_model.h"
#include "memory_store.h"
#include "model_node.h"
#include "pkgdist_lead/lead.h"

namespace pkgdist::test {

inline constexpr uint32_t kLeadAddress = 0x0A000001;  // 10.0.0.1
inline constexpr uint32_t kLeadPid = 4711;

template <class Node>
class Cluster {
 public:
  // Where a process starts, and how it sends: on a channel, to the lead at an address.
  struct Place {
    size_t index = 0;
    uint32_t address = 0;
    uint32_t pid = 0;
    uint64_t now = 0;
  };
  using Send = std::function<void(lead::Channel, uint32_t lead, Bytes)>;
  using Maker = std::function<std::unique_ptr<Node>(const Place&, typename Node::Storage&, Send)>;

  explicit Cluster(Maker maker) : maker_(std::move(maker)) {}

  static lead::Settings default_settings() {
    lead::Settings settings;
    settings.address = kLeadAddress;
    settings.pid = kLeadPid;
    settings.seed = 1;
    settings.rate_bits = 400'000'000;
    return settings;
  }

  // The ports of the protocol, by who listens: nodes on the groups and on their own, the lead on
  // its own for control messages and for data requests.
  enum class Port : uint8_t { kControlGroup, kDataGroup, kNode, kLead, kRequests };

  // A host: its disk stays while its node process comes and goes.
  struct Host {
    uint32_t address = 0;
    uint32_t pid = 0;
    typename Node::Storage disk;
    std::unique_ptr<Node> node;  // null while no process runs
    Path down, up;
    std::set<Port> filtered;  // what a packet filter drops on the way from or to the host
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
    host.node = maker_({index, host.address, host.pid, now_}, host.disk,
                       [this, index](lead::Channel channel, uint32_t lead, Bytes bytes) {
                         from_node(index, channel, lead, std::move(bytes));
                       });
  }
  void stop_node(size_t index) { hosts_[index]->node.reset(); }

  // Random loss of what nodes receive and of what the lead receives.
  void set_loss(double down, double up, uint64_t seed) {
    for (size_t i = 0; i < hosts_.size(); ++i) {
      Host& host = *hosts_[i];
      if (down > 0) host.down.template with<RandomLoss>(down, seed * 1000 + i);
      if (up > 0) host.up.template with<RandomLoss>(up, seed * 2000 + i);
    }
  }

  // The same, but what nodes receive is lost batch by batch, as on virtual links.
  void set_batch_loss(double down, double up, uint64_t seed) {
    set_loss(0, up, seed);
    for (size_t i = 0; i < hosts_.size(); ++i)
      hosts_[i]->down.template with<BatchLoss>(down, batch_, seed * 1000 + i);
  }

  // Takes a host and a lead apart, or two leads, or puts them together again. What is on the way
  // arrives.
  void cut(size_t host, size_t lead, bool apart) { set_cut(cut_hosts_, {host, lead}, apart); }
  void cut_leads(size_t one, size_t other, bool apart) {
    set_cut(cut_leads_, {one, other}, apart);
    set_cut(cut_leads_, {other, one}, apart);
  }

  // A host with a lead; several hear each other on the group. What it and its later processes tell
  // goes to `events`, or is gathered for seen(). Its clock is ahead of the cluster's.
  size_t add_lead(const lead::Settings& settings, lead::Events* events = nullptr,
                  uint64_t clock_ahead = 0) {
    Leader& leader = *leaders_.emplace_back(std::make_unique<Leader>(*this, leaders_.size()));
    leader.events = events != nullptr ? events : &leader;
    leader.clock_ahead = clock_ahead;
    restart_lead(settings, leaders_.size() - 1);
    return leaders_.size() - 1;
  }
  // Like kill -9.
  void stop_lead(size_t index = 0) { leaders_[index]->process.reset(); }
  // Neither runs nor reads what arrives until it is resumed.
  void suspend_lead(size_t index, bool suspended) { leaders_[index]->suspended = suspended; }

  lead::Lead& lead(size_t index = 0) { return *leaders_[index]->process; }
  bool lead_runs(size_t index) const { return leaders_[index]->process != nullptr; }
  bool lead_suspended(size_t index) const { return leaders_[index]->suspended; }
  size_t leads() const { return leaders_.size(); }
  Host& host(size_t index) { return *hosts_[index]; }
  Node& node(size_t index) { return *hosts_[index]->node; }
  size_t hosts() const { return hosts_.size(); }
  uint64_t now() const { return now_; }
  // By the lead's clock, which is what its calls take.
  uint64_t lead_time(size_t index) const { return now_ + leaders_[index]->clock_ahead; }

  // Starts a process on the lead's host, in place of one that runs there.
  void restart_lead(const lead::Settings& settings, size_t index = 0) {
    Leader& leader = *leaders_[index];
    leader.address = settings.address;
    leader.process = std::make_unique<lead::Lead>(settings, leader, store, *leader.events);
  }
  // A datagram that somebody sends to the control group, from the address that it names.
  void say_to_group(const Bytes& bytes) {
    const auto shared = std::make_shared<const Bytes>(bytes);
    const Message<pkgdist_ctrl_msg_hdr> header(parts_of(bytes).header);
    const uint32_t from = header.ok() ? header->node_ip : 0;
    for (size_t i = 0; i < hosts_.size(); ++i)
      carry(i, kToNode, lead::Channel::kControl, hosts_[i]->down, shared);
    for (size_t i = 0; i < leaders_.size(); ++i) overhear(i, from, shared);
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
    if (lead().start_push(std::move(request), now_) != nullptr) return false;
    return run_until([&] { return !lead().push_running(); }, limit);
  }

  // Every host has exactly what the store has.
  bool identical() const {
    for (const auto& host : hosts_)
      if (host->disk != store.files()) return false;
    return true;
  }

  struct Seen {
    size_t appeared = 0, restarted = 0, silent = 0, returned = 0, requested = 0, request_ended = 0;
    size_t shared = 0;        // processes of other hosts with a node's address
    size_t acknowledged = 0;  // messages of the lead's owner, by nodes
    std::vector<std::pair<uint32_t, lead::Delivery>> missed;  // by which node, and why
    std::vector<lead::MessageReport> finished;
    std::map<uint32_t, std::vector<Bytes>> messages;  // of nodes, by their address
    std::vector<lead::Role> roles;
    uint64_t other_lead = 0;  // reports of another lead
    uint64_t last_request_status = 0;
  };
  // What a lead and its later processes have told.
  const Seen& seen(size_t index = 0) const { return leaders_[index]->seen; }
  uint64_t sent_to_group() const { return sent_; }
  // Sees every datagram of the lead before the network does.
  std::function<void(lead::Channel, uint32_t, std::span<const uint8_t>)> on_sent;
  // The same of the nodes.
  std::function<void(size_t host, lead::Channel, const Bytes&)> on_node_sent;

  MemoryStore store;

 private:
  static constexpr uint64_t kLatency = 200'000;  // ns, one way

  // A host with a lead: its network, and what it tells.
  struct Leader : lead::DatagramSink, lead::Events {
    Leader(Cluster& owner, size_t number) : cluster(owner), index(number) {}

    std::span<uint8_t> buffer() override { return bytes; }
    void send(lead::Channel channel, uint32_t destination, size_t length) override {
      // Datagrams of one length are a batch; the last may be shorter.
      if (length > batch_length || batch_ended) ++*cluster.batch_;
      batch_ended = length < batch_length;
      batch_length = length;
      cluster.from_lead(index, channel, destination, {bytes.data(), length});
    }
    void node_appeared(const lead::NodeInfo&) override { ++seen.appeared; }
    void node_restarted(const lead::NodeInfo&) override { ++seen.restarted; }
    void address_shared(const lead::NodeInfo&, uint32_t) override { ++seen.shared; }
    void node_silent(const lead::NodeInfo&) override { ++seen.silent; }
    void node_returned(const lead::NodeInfo&) override { ++seen.returned; }
    void file_requested(const lead::NodeInfo&, uint32_t, const std::string&,
                        uint64_t status) override {
      ++seen.requested;
      seen.last_request_status = status;
    }
    void request_ended(const lead::NodeInfo&, uint32_t, const std::string&, uint64_t) override {
      ++seen.request_ended;
    }
    void message_received(const lead::NodeInfo& node, uint32_t,
                          std::span<const uint8_t> content) override {
      seen.messages[node.address].emplace_back(content.begin(), content.end());
    }
    void message_acknowledged(const lead::NodeInfo&, lead::MessageId) override {
      ++seen.acknowledged;
    }
    void message_missed(const lead::NodeInfo& node, lead::MessageId, lead::Delivery why) override {
      seen.missed.emplace_back(node.address, why);
    }
    void message_finished(const lead::MessageReport& report) override {
      seen.finished.push_back(report);
    }
    void role_changed(lead::Role role, uint32_t) override { seen.roles.push_back(role); }
    void other_lead_heard(uint32_t, uint32_t, uint64_t) override { ++seen.other_lead; }

    Cluster& cluster;
    const size_t index;
    uint32_t address = 0;
    uint64_t clock_ahead = 0;
    bool suspended = false;
    lead::Events* events = nullptr;
    std::array<uint8_t, 2048> bytes{};
    std::unique_ptr<lead::Lead> process;
    bool batch_ended = true;
    size_t batch_length = 0;
    Seen seen;
    Path overheard;  // what it hears of other leads
  };

  enum To : uint8_t { kToNode, kToLead, kOverheard };
  struct Packet {
    uint64_t at = 0;
    uint64_t order = 0;
    size_t receiver = 0;  // a host, or the lead that overhears
    To to = kToNode;
    lead::Channel channel = lead::Channel::kControl;
    uint32_t lead = 0;  // address of the lead that it goes to, or was overheard from
    bool unicast = false;
    std::shared_ptr<const Bytes> bytes;
    bool operator>(const Packet& other) const {
      return at != other.at ? at > other.at : order > other.order;
    }
  };

  void from_lead(size_t index, lead::Channel channel, uint32_t destination,
                 std::span<const uint8_t> content) {
    ++sent_;
    if (on_sent) on_sent(channel, destination, content);
    const auto bytes = std::make_shared<const Bytes>(content.begin(), content.end());
    const Port port = destination != lead::kGroup       ? Port::kNode
                      : channel == lead::Channel::kData ? Port::kDataGroup
                                                        : Port::kControlGroup;
    for (size_t i = 0; i < hosts_.size(); ++i)
      if ((destination == lead::kGroup || destination == hosts_[i]->address) &&
          !cut_hosts_.contains({i, index}) && !hosts_[i]->filtered.contains(port))
        carry(i, kToNode, channel, hosts_[i]->down, bytes, 0, destination != lead::kGroup);
    if (channel != lead::Channel::kControl || destination != lead::kGroup) return;
    for (size_t i = 0; i < leaders_.size(); ++i)
      if ((leaders_.size() > 1 || i != index) && !cut_leads_.contains({index, i}))
        overhear(i, leaders_[index]->address, bytes);
  }
  void overhear(size_t index, uint32_t from, const std::shared_ptr<const Bytes>& bytes) {
    carry(index, kOverheard, lead::Channel::kOverheard, leaders_[index]->overheard, bytes, from);
  }
  void from_node(size_t index, lead::Channel channel, uint32_t lead, Bytes bytes) {
    if (on_node_sent) on_node_sent(index, channel, bytes);
    const Port port = channel == lead::Channel::kData ? Port::kRequests : Port::kLead;
    if (hosts_[index]->filtered.contains(port)) return;
    for (size_t i = 0; i < leaders_.size(); ++i)
      if (leaders_[i]->address == lead && cut_hosts_.contains({index, i})) return;
    carry(index, kToLead, channel, hosts_[index]->up,
          std::make_shared<const Bytes>(std::move(bytes)), lead);
  }
  void carry(size_t receiver, To to, lead::Channel channel, Path& path,
             const std::shared_ptr<const Bytes>& bytes, uint32_t lead = 0, bool unicast = false) {
    const Fate fate = path.next(now_, bytes->size());
    if (fate.dropped) return;
    uint64_t at = now_ + kLatency + fate.extra_delay_ns;
    for (int i = 0; i < fate.copies; ++i, at += fate.copy_delay_ns)
      packets_.push({at, ++order_, receiver, to, channel, lead, unicast, bytes});
  }

  void deliver(const Packet& packet) {
    if (packet.to == kOverheard) {
      Leader& leader = *leaders_[packet.receiver];
      if (leader.process && !leader.suspended)
        leader.process->on_datagram(packet.channel, *packet.bytes, packet.lead,
                                    now_ + leader.clock_ahead);
      return;
    }
    Host& host = *hosts_[packet.receiver];
    if (packet.to == kToLead) {
      for (const auto& leader : leaders_)
        if (leader->address == packet.lead && leader->process && !leader->suspended)
          leader->process->on_datagram(packet.channel, *packet.bytes, host.address,
                                       now_ + leader->clock_ahead);
    } else if (host.node && packet.channel == lead::Channel::kControl) {
      host.node->on_control(*packet.bytes, now_, packet.unicast);
    } else if (host.node) {
      host.node->on_data(*packet.bytes, now_);
    }
  }

  uint64_t deadline_of(const Leader& leader) const {
    return leader.process->next_deadline(now_ + leader.clock_ahead) - leader.clock_ahead;
  }
  static void set_cut(std::set<std::pair<size_t, size_t>>& cuts, std::pair<size_t, size_t> two,
                      bool apart) {
    if (apart)
      cuts.insert(two);
    else
      cuts.erase(two);
  }

  void step(uint64_t end) {
    uint64_t next = end;
    for (const auto& leader : leaders_)
      if (leader->process && !leader->suspended) next = std::min(next, deadline_of(*leader));
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
    bool due = false;
    for (const auto& leader : leaders_) {
      if (!leader->process || leader->suspended) continue;
      leader->batch_ended = true;
      leader->process->run(now_ + leader->clock_ahead);
      due |= deadline_of(*leader) <= now_;
    }
    // A lead that is due without getting on would stop the clock.
    if (due) ++now_;
  }

  uint64_t now_ = 1'000'000'000;
  uint64_t order_ = 0;
  uint64_t sent_ = 0;
  const std::shared_ptr<uint64_t> batch_ = std::make_shared<uint64_t>(0);
  uint32_t next_pid_ = 100;
  const Maker maker_;
  std::set<std::pair<size_t, size_t>> cut_hosts_;  // (host, lead)
  std::set<std::pair<size_t, size_t>> cut_leads_;
  std::vector<std::unique_ptr<Host>> hosts_;
  std::vector<std::unique_ptr<Leader>> leaders_;
  std::priority_queue<Packet, std::vector<Packet>, std::greater<>> packets_;
};

// With modelled nodes, and one lead from the start.
class LeadCluster : public Cluster<ModelNode> {
 public:
  explicit LeadCluster(lead::Settings settings = default_settings(),
                       const NodeTimeouts& timeouts = NodeTimeouts::of_the_library())
      : Cluster([timeouts](const Place& place, Disk& disk, Send send) {
          return make_node(place, disk, std::move(send), timeouts);
        }) {
    add_lead(settings);
  }

 private:
  static std::unique_ptr<ModelNode> make_node(const Place& place, Disk& disk, Send send,
                                              const NodeTimeouts& timeouts) {
    const ModelNode::Identity identity{place.address, place.pid,
                                       static_cast<uint32_t>(place.index + 1) << 8, 7, timeouts};
    const auto node = std::make_shared<ModelNode*>(nullptr);
    auto made = std::make_unique<ModelNode>(
        identity, disk, [node, send = std::move(send)](ModelNode::To to, Bytes bytes) {
          const bool control = to == ModelNode::To::kControl;
          send(control ? lead::Channel::kControl : lead::Channel::kData, (*node)->lead(),
               std::move(bytes));
        });
    *node = made.get();
    return made;
  }
};

// `size` bytes that differ from place to place and from seed to seed.
inline Bytes pattern(size_t size, uint64_t seed) {
  Bytes bytes(size);
  std::mt19937_64 random(seed);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

}  // namespace pkgdist::test
