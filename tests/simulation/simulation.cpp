#include "simulation.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "exchange.h"
#include "judge.h"
#include "lead_cluster.h"
#include "scenario.h"

namespace pkgdist::sim {

namespace fs = std::filesystem;
using test::disk_key;
using test::kLeadAddress;
using Cluster = test::Cluster<SimulatedNode>;

namespace {

constexpr uint32_t kStandbyAddress = kLeadAddress + 100;
constexpr size_t kMostLeads = 2;
constexpr size_t kNoLead = SIZE_MAX;
// Waits, in the simulation's time. Each is longer than the longest chain of time-outs behind it.
constexpr uint64_t kSettleTime = 300 * kSecond;
constexpr uint64_t kFinalPushTime = 200 * kSecond;
// Nodes forget files after 30 s; their data threads end within 5 s more.
constexpr uint64_t kRestTime = 42 * kSecond;
// How long a lead waits for nodes that are absent, and an owner's message for its answers.
constexpr uint64_t kNodeTimeout = 15 * kSecond;
// Requests at the moment that data threads end, in one run.
constexpr uint64_t kMostStops = 40;

// FNV-1a over everything that happens.
class Trace {
 public:
  void add(uint64_t word) {
    for (int i = 0; i < 8; ++i) add_byte(static_cast<uint8_t>(word >> (8 * i)));
  }
  void add(std::span<const uint8_t> bytes) {
    for (uint8_t byte : bytes) add_byte(byte);
  }
  uint64_t value() const { return hash_; }

 private:
  void add_byte(uint8_t byte) { hash_ = (hash_ ^ byte) * 0x100000001b3; }
  uint64_t hash_ = 0xcbf29ce484222325;
};

class Run : public NodeWitness {
 public:
  Run(const Scenario& scenario, Workspace& workspace, std::FILE* record);
  ~Run() override;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  Verdict go();

 private:
  // The owner of the leads on one host: what they tell, over all their processes.
  struct Owner : lead::Events {
    Run* run = nullptr;
    size_t index = 0;
    uint32_t process = 0;  // number of the present one
    uint32_t push_location = 0;
    std::map<std::string, size_t> push_versions;      // at least, by name
    std::map<lead::MessageId, std::string> messages;  // of the present process
    std::set<lead::MessageId> open;

    void file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                    bool skipped) override;
    void message_received(const lead::NodeInfo& node, uint32_t msg_class,
                          std::span<const uint8_t> bytes) override;
    void message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) override;
    void message_finished(const lead::MessageReport& report) override { open.erase(report.id); }
    void role_changed(lead::Role role, uint32_t other) override;
    void push_started(uint32_t, uint64_t, uint64_t, uint32_t) override;
    void push_finished() override;
  };

  // NodeWitness
  void appeared(size_t host, const std::string& path) override;
  void file_ended(size_t host, const std::string& name, uint32_t location,
                  uint64_t status) override;
  void stopping(size_t host) override;
  void broke(size_t host, const std::string& what) override;
  void noted(size_t host, uint64_t number, const std::string& text) override;

  void set_up_files();
  void set_up_leads();
  void set_up_hosts();
  void set_up_paths(size_t host);
  lead::Settings lead_settings(size_t index);
  std::unique_ptr<SimulatedNode> start_process(const Cluster::Place& place, HostState& state,
                                               Cluster::Send send);

  void write_version(size_t file);
  void do_action(const Action& action);
  void push(const Action& action);
  void send_message(const Action& action);
  void remove(const Action& action);
  void break_file(const Action& action);
  void get_and_cancel(const Action& action);
  void end_process(size_t host, bool orderly);
  void start_lead(size_t index);
  void stop_lead(size_t index);
  void split(uint32_t mask, bool apart);
  bool answers(size_t lead) const;
  size_t working_lead() const;
  const char* start_push(size_t lead, lead::PushRequest request);

  void heal();
  bool is_quiet() const;
  void push_everything();
  void report_busy();
  void finish();

  void run_to(uint64_t time);
  void get_file(size_t host, const FileSpec& file, uint32_t type);
  bool node_runs(size_t host) const { return cluster_.host(host).node != nullptr; }
  void say(const std::string& text);

  const Scenario& scenario_;
  Workspace& workspace_;
  std::FILE* const record_;
  Judge judge_;
  Trace trace_;
  uint64_t datagrams_ = 0;
  mutable Cluster cluster_;
  Owner owners_[kMostLeads];
  std::vector<std::shared_ptr<test::FiniteQueue>> queues_;  // that the stream must not overrun
  std::vector<std::shared_ptr<bool>> down_, up_;          // outages of what hosts receive and send
  std::multimap<uint64_t, std::function<void()>> later_;  // by time, while there is trouble
  uint64_t stops_ = 0;                                    // of data threads
  uint32_t next_number_ = 0;          // of requests, messages and lead processes
  std::vector<size_t> next_version_;  // by file
  bool healed_ = false;
  bool over_ = false;
};

// --- Setting up ---

Run::Run(const Scenario& scenario, Workspace& workspace, std::FILE* record)
    : scenario_(scenario),
      workspace_(workspace),
      record_(record),
      judge_(scenario),
      cluster_([this](const Cluster::Place& place, HostState& state, Cluster::Send send) {
        return start_process(place, state, std::move(send));
      }) {
  cluster_.on_sent = [this](lead::Channel channel, uint32_t to, std::span<const uint8_t> bytes) {
    ++datagrams_;
    trace_.add(cluster_.now());
    trace_.add(bytes);
    if (record_ != nullptr)
      say("lead -> " + (to == lead::kGroup ? "all" : std::to_string(to & 0xFF)) + ": " +
          describe(channel, bytes));
  };
  cluster_.on_node_sent = [this](size_t host, lead::Channel channel, const Bytes& bytes) {
    ++datagrams_;
    trace_.add(cluster_.now());
    trace_.add(bytes);
    if (record_ != nullptr)
      say("host " + std::to_string(host) + " -> lead: " + describe(channel, bytes));
  };
  set_up_files();
  set_up_leads();
  set_up_hosts();
}

Run::~Run() {
  over_ = true;
  for (size_t i = 0; i < cluster_.hosts(); ++i) {
    if (node_runs(i)) cluster_.stop_node(i);
    const HostState& state = cluster_.host(i).disk;
    std::error_code ignored;
    fs::remove_all(state.directory, ignored);
    for (const FileSpec& file : scenario_.files)
      if (file.location == kMemoryLocation)
        fs::remove("/dev/shm" + state.memory_prefix + file.name, ignored);
  }
}

void Run::set_up_files() {
  next_version_.resize(scenario_.files.size());
  for (size_t i = 0; i < scenario_.files.size(); ++i) write_version(i);
}

// Versions differ in content, time and mostly in size.
void Run::write_version(size_t index) {
  const FileSpec& file = scenario_.files[index];
  const size_t version = next_version_[index]++;
  const std::string key = disk_key(file.location, file.name);
  const size_t size = file.size + (version % 3) * (version + 1);
  const uint64_t seed = scenario_.seed * 1000 + index * 10 + version;
  if (file.symlink)
    cluster_.store.add_link(file.name, "target " + std::to_string(seed), file.location);
  else
    cluster_.store.add(file.name, test::pattern(size, seed), file.mode,
                       1'600'000'000 + static_cast<uint32_t>(index * 100 + version), file.location);
  judge_.add_version(key, cluster_.store.files().at(key));
}

lead::Settings Run::lead_settings(size_t index) {
  lead::Settings settings;
  settings.address = index == 0 ? kLeadAddress : kStandbyAddress;
  settings.pid = 5000 + ++next_number_;
  settings.node_id = static_cast<uint32_t>(scenario_.seed % 2 == 0 ? 0x010100 + index : 0);
  settings.seed = scenario_.seed * 7919 + next_number_ * 104'729 + 1'000'000;
  settings.segment_size = scenario_.segment_size;
  settings.rate_bits = scenario_.rate_bits;
  settings.node_timeout = kNodeTimeout;
  settings.wall_seconds = scenario_.wall_seconds[index];
  settings.listen = lead::kDefaultListen;
  settings.standby = index != 0;
  return settings;
}

void Run::set_up_leads() {
  for (size_t i = 0; i < (scenario_.standby ? 2 : 1); ++i) {
    owners_[i].run = this;
    owners_[i].index = i;
    cluster_.add_lead(lead_settings(i), &owners_[i], scenario_.lead_clocks[i]);
    owners_[i].process = next_number_;
  }
}

void Run::set_up_paths(size_t host) {
  const Network& network = scenario_.network;
  uint64_t last_seed = scenario_.seed * 64 + host * 16;
  const auto seed = [&] { return ++last_seed; };
  for (test::Path* path : {&cluster_.host(host).down, &cluster_.host(host).up}) {
    const bool down = path == &cluster_.host(host).down;
    if (const double loss = down ? network.loss_down : network.loss_up; loss > 0)
      path->with<test::RandomLoss>(loss, seed());
    if (network.burst > 0 && down) path->with<test::BurstLoss>(network.burst, 8, seed());
    if (network.duplicates > 0)
      path->with<test::RandomDuplicate>(network.duplicates, seed())
          .with<test::LateCopies>(20 * kMillisecond, seed());
    if (network.reorder > 0)
      path->with<test::RandomReorder>(network.reorder, 3 * kMillisecond, seed());
    if (network.jitter_ns > 0) path->with<test::Jitter>(network.jitter_ns, seed());
    path->with<test::Outage>(down ? down_[host] : up_[host]);
  }
  test::Path& down = cluster_.host(host).down;
  if (network.port_bytes > 0)
    queues_.push_back(down.add<test::LinkPort>(network.port_bytes, network.port_bits_per_second));
  if (network.socket_bytes > 0)
    queues_.push_back(
        down.add<test::NodeSocket>(network.socket_bytes, network.node_bytes_per_second));
}

void Run::set_up_hosts() {
  for (size_t i = 0; i < scenario_.nodes; ++i) {
    cluster_.add_host(false);
    HostState& state = cluster_.host(i).disk;
    state.directory = workspace_.path() / ("host" + std::to_string(i)) / "";
    state.memory_prefix = "/" + workspace_.prefix() + "-host" + std::to_string(i) + "-";
    state.clock_ahead = scenario_.node_clocks[i];
    fs::create_directories(state.directory);
    down_.push_back(std::make_shared<bool>(false));
    up_.push_back(std::make_shared<bool>(false));
    set_up_paths(i);
    cluster_.start_node(i);
  }
}

std::unique_ptr<SimulatedNode> Run::start_process(const Cluster::Place& place, HostState& state,
                                                  Cluster::Send send) {
  SimulatedNode::Habits habits;
  habits.seed = scenario_.seed * 100 + place.pid;
  habits.yields_per_mille = scenario_.yields_per_mille;
  habits.caller_lag = scenario_.caller_lag;
  habits.forgets_at_once = scenario_.forgets_at_once;
  habits.texts = record_ != nullptr;
  return std::make_unique<SimulatedNode>(
      SimulatedNode::Place{place.index, place.address, place.pid, place.now}, habits, state,
      workspace_, *this, std::move(send));
}

// --- What is told ---

void Run::say(const std::string& text) {
  if (record_ == nullptr) return;
  const uint64_t now = cluster_.now();
  std::fprintf(record_, "%6lu.%06lu %s%s", now / kSecond, now % kSecond / 1000, text.c_str(),
               !text.empty() && text.back() == '\n' ? "" : "\n");
}

void Run::appeared(size_t host, const std::string& path) {
  judge_.appeared(cluster_.host(host).disk, path);
}
void Run::file_ended(size_t host, const std::string& name, uint32_t location, uint64_t status) {
  judge_.file_ended(cluster_.host(host).disk, name, location, status);
}
// Somebody wants a file just then, or a little later, when another thread is about to end.
void Run::stopping(size_t host) {
  if (over_ || healed_) return;
  const size_t files = scenario_.files.size();
  const uint64_t dice = scenario_.seed * 31 + ++stops_ * 17;
  const FileSpec& file = scenario_.files[dice % files];
  if (file.role != Role::kShared || stops_ > kMostStops) return;
  const uint64_t pause = dice % 3 == 0 ? 5 * kSecond - 10 * kMillisecond : 0;
  later_.emplace(cluster_.now() + pause + dice % 25 * kMillisecond, [this, host, &file] {
    if (node_runs(host)) get_file(host, file, 1);
  });
}
void Run::get_file(size_t host, const FileSpec& file, uint32_t type) {
  ++next_number_;
  cluster_.node(host).come_to(cluster_.now());
  cluster_.node(host).get_file(next_number_, file.name, file.location, type, 1 + next_number_ % 4);
}
void Run::broke(size_t host, const std::string& what) {
  judge_.violated("host " + std::to_string(host) + ": " + what);
}
void Run::noted(size_t host, uint64_t number, const std::string& text) {
  if (over_) return;
  trace_.add(host);
  trace_.add(number);
  if (record_ != nullptr) say("host " + std::to_string(host) + ": " + text);
}

void Run::Owner::file_ended(const lead::NodeInfo& node, const std::string& name, uint64_t status,
                            bool) {
  run->say("lead " + std::to_string(index) + ": '" + name + "' ended on " +
           std::to_string(node.address & 0xFF) + (status == 0 ? " well" : " with an error"));
  const size_t host = node.address - kLeadAddress - 1;
  if (status == 0)
    run->judge_.has_file(run->cluster_.host(host).disk, push_location, name, push_versions[name],
                         "lead " + std::to_string(index) + " about host " + std::to_string(host));
}
void Run::Owner::message_received(const lead::NodeInfo&, uint32_t, std::span<const uint8_t> bytes) {
  run->judge_.lead_received(process, std::string(bytes.begin(), bytes.end()));
}
void Run::Owner::message_acknowledged(const lead::NodeInfo& node, lead::MessageId id) {
  const auto found = messages.find(id);
  if (found == messages.end()) return;  // a cancel or a delete
  const size_t host = node.address - kLeadAddress - 1;
  run->judge_.lead_was_acknowledged(host, node.pid, found->second);
}
void Run::Owner::role_changed(lead::Role role, uint32_t) {
  run->say("lead " + std::to_string(index) +
           (role == lead::Role::kLeading ? " leads" : " steps aside or listens"));
}
void Run::Owner::push_started(uint32_t xact, uint64_t, uint64_t, uint32_t) {
  run->say("lead " + std::to_string(index) + ": push " + std::to_string(xact) + " begins");
}
void Run::Owner::push_finished() {
  run->say("lead " + std::to_string(index) + ": push finished");
}

// --- Actions ---

bool Run::answers(size_t lead) const {
  return cluster_.lead_runs(lead) && !cluster_.lead_suspended(lead);
}

// The lead that leads, or one that runs; kNoLead when there is none to talk to.
size_t Run::working_lead() const {
  size_t found = kNoLead;
  for (size_t i = 0; i < cluster_.leads(); ++i) {
    if (!answers(i)) continue;
    if (cluster_.lead(i).role() == lead::Role::kLeading) return i;
    found = std::min(found, i);
  }
  return found;
}

const char* Run::start_push(size_t lead, lead::PushRequest request) {
  request.node_timeout = kNodeTimeout;
  std::map<std::string, size_t> versions;
  for (const lead::PushFile& file : request.files)
    versions[file.name] = judge_.versions(disk_key(request.location, file.name)) - 1;
  const uint32_t location = request.location;
  const char* problem =
      cluster_.lead(lead).start_push(std::move(request), cluster_.lead_time(lead));
  if (problem != nullptr) return problem;
  owners_[lead].push_versions = std::move(versions);
  owners_[lead].push_location = location;
  return nullptr;
}

void Run::push(const Action& action) {
  const size_t lead = working_lead();
  if (lead == kNoLead || action.files.empty()) return;
  lead::PushRequest request;
  request.location = scenario_.files[action.files[0]].location;
  request.type = action.type;
  for (size_t file : action.files)
    request.files.push_back({scenario_.files[file].name, scenario_.files[file].size});
  for (size_t i = 0; i < scenario_.nodes; ++i)
    if ((action.mask >> i & 1) != 0) request.nodes.push_back(cluster_.host(i).address);
  request.node_count = scenario_.nodes;
  if (start_push(lead, std::move(request)) != nullptr) say("not possible");
}

void Run::send_message(const Action& action) {
  const size_t lead = working_lead();
  if (lead == kNoLead) return;
  std::string bytes = "from lead, number " + std::to_string(++next_number_) + ' ';
  bytes.resize(std::max<size_t>(bytes.size(), action.number), 'm');
  lead::Audience audience = lead::Audience::everyone();
  std::vector<uint32_t> nodes;
  for (size_t i = 0; i < scenario_.nodes; ++i)
    if ((action.mask >> i & 1) != 0) nodes.push_back(cluster_.host(i).address);
  if (action.type == 1)
    audience = lead::Audience::one(cluster_.host(action.who).address);
  else if (!nodes.empty())
    audience = lead::Audience::only(nodes);
  judge_.lead_sent(bytes);
  Owner& owner = owners_[lead];
  const lead::MessageId id = cluster_.lead(lead).send_message(
      2 + next_number_ % 4, {bytes.begin(), bytes.end()}, audience, cluster_.lead_time(lead));
  if (id == 0) return say("not possible");
  owner.messages[id] = bytes;
  if (!cluster_.lead(lead).message_report(id).finished) owner.open.insert(id);
}

void Run::remove(const Action& action) {
  const size_t lead = working_lead();
  if (lead == kNoLead) return;
  std::vector<std::string> names;
  for (size_t file : action.files) names.push_back(scenario_.files[file].name);
  const lead::MessageId id = cluster_.lead(lead).delete_files(
      kDiskLocation, names, lead::Audience::everyone(), cluster_.lead_time(lead));
  if (id != 0 && !cluster_.lead(lead).message_report(id).finished) owners_[lead].open.insert(id);
}

void Run::break_file(const Action& action) {
  const FileSpec& file = scenario_.files[action.files[0]];
  if (action.number == 0) cluster_.store.break_open(file.name, EACCES, file.location);
  if (action.number == 1) cluster_.store.break_open(file.name, ENOENT, file.location);
  if (action.number == 2) cluster_.store.break_read(file.name, file.size / 2, file.location);
}

void Run::end_process(size_t host, bool orderly) {
  if (!node_runs(host)) return;
  SimulatedNode& node = cluster_.node(host);
  if (orderly) node.run_callbacks();
  const bool interrupted = !orderly || node.holdings().files_received != 0;
  cluster_.host(host).disk.killed |= interrupted;
  judge_.node_was_killed(host, cluster_.host(host).pid);
  judge_.process_ended(host, node, true);
  cluster_.stop_node(host);
}

void Run::start_lead(size_t index) {
  if (cluster_.lead_runs(index)) return;
  const lead::Settings settings = lead_settings(index);
  owners_[index].process = next_number_;
  cluster_.restart_lead(settings, index);
}

void Run::stop_lead(size_t index) {
  cluster_.stop_lead(index);
  owners_[index].messages.clear();
  owners_[index].open.clear();
}

void Run::split(uint32_t mask, bool apart) {
  if (cluster_.leads() < 2) return;
  for (size_t i = 0; i < cluster_.hosts(); ++i)
    cluster_.cut(i, (mask >> i & 1) != 0 ? 0 : 1, apart);
  cluster_.cut_leads(0, 1, apart);
}

void Run::get_and_cancel(const Action& action) {
  if (!node_runs(action.who)) return;
  get_file(action.who, scenario_.files[action.files[0]], action.type);
  if (action.number == 0) return;
  later_.emplace(cluster_.now() + action.number, [this, host = action.who, request = next_number_] {
    if (!node_runs(host)) return;
    cluster_.node(host).come_to(cluster_.now());
    cluster_.node(host).cancel(request);
  });
}

void Run::do_action(const Action& action) {
  if (record_ != nullptr) say("--- " + describe(scenario_, action));
  const size_t file = action.files.empty() ? SIZE_MAX : action.files[0];
  SimulatedNode* node =
      action.who < cluster_.hosts() ? cluster_.host(action.who).node.get() : nullptr;
  if (node != nullptr) node->come_to(cluster_.now());
  switch (action.deed) {
    case Deed::kPush:
      return push(action);
    case Deed::kGet:
      if (node != nullptr && file != SIZE_MAX)
        get_file(action.who, scenario_.files[file], action.type);
      return;
    case Deed::kGetAndCancel:
      return get_and_cancel(action);
    case Deed::kGetUnknown:
      if (node != nullptr) node->get_file(++next_number_, "unknown", kDiskLocation, 1, 2);
      return;
    case Deed::kDelete:
      return remove(action);
    case Deed::kCancelPush: {
      const size_t lead = working_lead();
      if (lead == kNoLead || cluster_.lead(lead).push_transaction() == 0) return;
      const lead::MessageId id = cluster_.lead(lead).cancel_transaction(
          cluster_.lead(lead).push_transaction(), lead::Audience::everyone(),
          cluster_.lead_time(lead));
      if (id != 0 && !cluster_.lead(lead).message_report(id).finished)
        owners_[lead].open.insert(id);
      return;
    }
    case Deed::kUpdate:
      return write_version(file);
    case Deed::kBreak:
      return break_file(action);
    case Deed::kMessage:
      return send_message(action);
    case Deed::kNodeMessage: {
      if (node == nullptr) return;
      std::string bytes = "from host " + std::to_string(action.who) + ", number " +
                          std::to_string(++next_number_) + ' ';
      bytes.resize(std::max<size_t>(bytes.size(), action.number), 'n');
      judge_.node_sent(bytes);
      return node->send(next_number_, std::move(bytes), 1 + next_number_ % 5);
    }
    case Deed::kKillNode:
    case Deed::kStopNode:
      return end_process(action.who, action.deed == Deed::kStopNode);
    case Deed::kStartNode:
      if (node == nullptr) cluster_.start_node(action.who);
      return;
    case Deed::kKillLead:
      return stop_lead(action.who);
    case Deed::kStartLead:
      return start_lead(action.who);
    case Deed::kSuspendLead:
    case Deed::kResumeLead:
      return cluster_.suspend_lead(action.who, action.deed == Deed::kSuspendLead);
    case Deed::kOutage:
    case Deed::kOutageOver:
      if ((action.type & 1) != 0) *down_[action.who] = action.deed == Deed::kOutage;
      if ((action.type & 2) != 0) *up_[action.who] = action.deed == Deed::kOutage;
      return;
    case Deed::kSplit:
    case Deed::kSplitOver:
      return split(action.mask, action.deed == Deed::kSplit);
  }
}

// --- The course of a run ---

void Run::run_to(uint64_t time) {
  const auto next = [this] { return later_.empty() ? kNever : later_.begin()->first; };
  while (cluster_.now() < time || next() <= time) {
    const uint64_t until = std::min(time, next());
    if (until > cluster_.now())
      cluster_.run_until([&] { return next() < until; }, until - cluster_.now());
    if (next() > cluster_.now()) continue;
    const std::function<void()> act = std::move(later_.begin()->second);
    later_.erase(later_.begin());
    act();
  }
}

Verdict Run::go() {
  if (record_ != nullptr) std::fprintf(record_, "%s", describe(scenario_).c_str());
  const uint64_t start = cluster_.now();
  for (const Action& action : scenario_.actions) {
    if (action.at > scenario_.chaos_ends) break;  // healing comes first
    run_to(start + action.at);
    do_action(action);
  }
  run_to(start + scenario_.chaos_ends);
  heal();
  later_.clear();
  cluster_.run_for(3 * kSecond);
  if (!cluster_.run_until([this] { return is_quiet(); }, kSettleTime)) {
    judge_.violated("what was begun did not end");
    report_busy();
  } else {
    push_everything();
    if (judge_.violations().empty()) finish();
  }
  return {judge_.violations(), trace_.value(), datagrams_, cluster_.now() - start};
}

void Run::heal() {
  say("--- everything heals");
  healed_ = true;
  for (size_t i = 0; i < cluster_.hosts(); ++i) {
    *down_[i] = *up_[i] = false;
    if (!node_runs(i)) cluster_.start_node(i);
    // A node that forgets at once cannot repeat a report that was lost.
    if (scenario_.seed % 2 == 0 || scenario_.forgets_at_once) {
      cluster_.host(i).down.clear();
      cluster_.host(i).up.clear();
    }
  }
  split(UINT32_MAX, false);
  split(0, false);
  cluster_.store.mend();
  for (size_t i = 0; i < cluster_.leads(); ++i) {
    cluster_.suspend_lead(i, false);
    start_lead(i);
  }
}

bool Run::is_quiet() const {
  size_t leading = 0;
  uint32_t address = 0;
  for (size_t i = 0; i < cluster_.leads(); ++i) {
    if (!owners_[i].open.empty()) return false;
    const bool leads = cluster_.lead(i).role() == lead::Role::kLeading;
    if (cluster_.lead(i).push_running() && (leads || cluster_.lead(i).push_report().started))
      return false;
    if (!leads) continue;
    ++leading;
    address = i == 0 ? kLeadAddress : kStandbyAddress;
  }
  if (leading != 1) return false;
  for (size_t i = 0; i < cluster_.hosts(); ++i) {
    if (cluster_.node(i).diary().waits()) return false;
    const Holdings holdings = cluster_.node(i).holdings();
    if (holdings.lead != address || holdings.files_received != 0 || holdings.messages_sent != 0 ||
        holdings.messages_received != 0)
      return false;
  }
  return true;
}

void Run::report_busy() {
  for (size_t i = 0; i < cluster_.leads(); ++i)
    judge_.violated("  lead " + std::to_string(i) + ": role " +
                    std::to_string(static_cast<int>(cluster_.lead(i).role())) + ", push " +
                    (cluster_.lead(i).push_running() ? "runs" : "does not run") + ", messages " +
                    std::to_string(owners_[i].open.size()));
  for (size_t i = 0; i < cluster_.hosts(); ++i) {
    const Holdings holdings = cluster_.node(i).holdings();
    judge_.violated("  host " + std::to_string(i) + ": follows " +
                    std::to_string(holdings.lead & 0xFF) + ", receives " +
                    std::to_string(holdings.files_received) + " files and " +
                    std::to_string(holdings.messages_received) + " messages, sends " +
                    std::to_string(holdings.messages_sent) +
                    ", caller waits: " + (cluster_.node(i).diary().waits() ? "yes" : "no"));
  }
}

void Run::push_everything() {
  // Of a push that waits for its lead to lead, the owner has lost patience.
  for (size_t i = 0; i < cluster_.leads(); ++i) cluster_.lead(i).stop_push(cluster_.lead_time(i));
  for (uint32_t location : {kDiskLocation, kMemoryLocation}) {
    lead::PushRequest request;
    request.location = location;
    for (const FileSpec& file : scenario_.files)
      if (file.location == location && file.role != Role::kClash)
        request.files.push_back({file.name, file.size});
    if (request.files.empty()) continue;
    for (size_t i = 0; i < cluster_.hosts(); ++i) request.nodes.push_back(cluster_.host(i).address);
    const size_t lead = working_lead();
    say("--- the last push");
    if (const char* problem = start_push(lead, std::move(request)); problem != nullptr)
      return judge_.violated(std::string("the last push was refused: ") + problem);
    if (!cluster_.run_until([&] { return !cluster_.lead(lead).push_running(); }, kFinalPushTime))
      return judge_.violated("the last push did not end");
    const lead::PushReport report = cluster_.lead(lead).push_report();
    if (report.complete()) continue;
    judge_.violated("the last push is not complete");
    for (const lead::PushNodeReport& node : report.nodes)
      for (const auto& [file, status] : node.failed) {
        char text[64];
        std::snprintf(text, sizeof text, "  file %u on %u: %lx", file, node.address & 0xFF, status);
        judge_.violated(text);
      }
  }
}

void Run::finish() {
  // A list that the network doubled begins its files again.
  if (!cluster_.run_until([this] { return is_quiet(); }, kSettleTime)) {
    judge_.violated("what the last push began did not end");
    return report_busy();
  }
  // With far smaller segments a few may: a socket holds fewer of their bytes than of usual ones.
  if (scenario_.calm && scenario_.segment_size >= lead::kDefaultSegmentSize)
    for (const auto& queue : queues_)
      if (queue->dropped() > 0)
        judge_.violated(std::to_string(queue->dropped()) + " datagrams found a queue full");
  cluster_.run_for(kRestTime);
  for (size_t i = 0; i < cluster_.hosts(); ++i) {
    const HostState& state = cluster_.host(i).disk;
    judge_.is_identical(state);
    judge_.is_tidy(state);
    judge_.process_rests(i, cluster_.node(i));
    judge_.process_ended(i, cluster_.node(i), false);
  }
  judge_.gaps_were_asked_for();
  judge_.messages_are_settled();
}

}  // namespace

Verdict run_seed(uint64_t seed, Workspace& workspace, std::FILE* record) {
  const Scenario scenario = draw_scenario(seed);
  Run run(scenario, workspace, record);
  return run.go();
}

}  // namespace pkgdist::sim
