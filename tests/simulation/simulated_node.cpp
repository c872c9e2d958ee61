#include "simulated_node.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace pkgdist::sim {

namespace fs = std::filesystem;

// --- Workspace ---

Workspace::Workspace(fs::path process_object) : object_(std::move(process_object)) {
  const bool in_memory = access("/dev/shm", W_OK) == 0;
  std::string pattern =
      (in_memory ? fs::path("/dev/shm") : fs::temp_directory_path()) / "pkgdist-sim-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory to work in");
  path_ = pattern;
}

Workspace::~Workspace() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

Workspace::Loaded Workspace::load() {
  Loaded loaded;
  loaded.copy =
      static_cast<size_t>(std::find(taken_.begin(), taken_.end(), false) - taken_.begin());
  const fs::path file = path_ / ("process-" + std::to_string(loaded.copy) + ".so");
  if (loaded.copy == taken_.size()) {
    taken_.push_back(false);
    fs::copy_file(object_, file);
  }
  taken_[loaded.copy] = true;
  loaded.handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (loaded.handle == nullptr) throw std::runtime_error(dlerror());
  const auto make = reinterpret_cast<MakeProcess>(dlsym(loaded.handle, kMakeProcess));
  if (make == nullptr) throw std::runtime_error(dlerror());
  loaded.process = make();
  return loaded;
}

void Workspace::unload(const Loaded& loaded) {
  dlclose(loaded.handle);
  // Still there, its globals would be those of the next process.
  if (void* again = dlopen((path_ / ("process-" + std::to_string(loaded.copy) + ".so")).c_str(),
                           RTLD_NOW | RTLD_NOLOAD);
      again != nullptr)
    throw std::runtime_error("a process's shared object cannot be unloaded");
  taken_[loaded.copy] = false;
}

// --- Diary ---

bool Diary::waits() const {
  const auto open = [](const auto& entry) {
    return entry.second.accepted == 0 && entry.second.outcomes.empty();
  };
  return std::any_of(requests.begin(), requests.end(), open) ||
         std::any_of(messages.begin(), messages.end(), open) ||
         std::any_of(pushed.begin(), pushed.end(), [](const auto& entry) {
           return entry.second.outcomes.size() < entry.second.listed;
         });
}

// --- Node ---

SimulatedNode::SimulatedNode(const Place& place, const Habits& habits, HostState& state,
                             Workspace& workspace, NodeWitness& witness, Send send)
    : place_(place),
      texts_(habits.texts),
      state_(state),
      workspace_(workspace),
      witness_(witness),
      send_(std::move(send)),
      loaded_(workspace.load()) {
  ++state_.lives;
  ProcessSettings settings;
  settings.address = place.address;
  settings.pid = place.pid;
  settings.node_id[1] = static_cast<uint32_t>(place.host) + 1;
  settings.card_class = habits.card_class;
  settings.directory = state.directory.c_str();
  settings.memory_prefix = state.memory_prefix.c_str();
  settings.now = place.now + state.clock_ahead;
  settings.seed = habits.seed;
  settings.yields_per_mille = habits.yields_per_mille;
  settings.caller_lag = habits.caller_lag;
  settings.forgets_at_once = habits.forgets_at_once;
  settings.texts = habits.texts;
  if (const uint64_t status = loaded_.process->start(settings, *this); status != 0)
    witness_.broke(place_.host, "start-up failed");
  at_rest_ = holdings();
}

SimulatedNode::~SimulatedNode() {
  loaded_.process->kill();
  workspace_.unload(loaded_);
}

void SimulatedNode::on_control(std::span<const uint8_t> bytes, uint64_t, bool unicast) {
  fresh_ = true;
  loaded_.process->deliver(unicast ? place_.address : kCtrlGroup, unicast ? kNodePort : kCtrlPort,
                           bytes);
}
void SimulatedNode::on_data(std::span<const uint8_t> bytes, uint64_t) {
  fresh_ = true;
  loaded_.process->deliver(kDataGroup, kDataPort, bytes);
}
void SimulatedNode::run(uint64_t now) {
  if (!fresh_ && next_deadline() > now) return;
  fresh_ = false;
  loaded_.process->run(now + state_.clock_ahead);
}
uint64_t SimulatedNode::next_deadline() const {
  return loaded_.process->next_wake() - state_.clock_ahead;
}

void SimulatedNode::get_file(uint32_t request, const std::string& name, uint32_t location,
                             uint32_t type, uint32_t priority) {
  Diary::Request& entry = diary_.requests[request];
  entry.name = name;
  entry.location = location;
  entry.accepted =
      loaded_.process->get_file(name.c_str(), type, location, priority, request, entry.xact);
}
void SimulatedNode::cancel(uint32_t request) {
  const auto found = diary_.requests.find(request);
  if (found == diary_.requests.end() || !found->second.outcomes.empty()) return;
  found->second.cancelled = true;
  (void)loaded_.process->cancel(found->second.xact);
}
void SimulatedNode::send(uint32_t message, std::string bytes, uint32_t msg_class) {
  Diary::Message& entry = diary_.messages[message];
  entry.bytes = std::move(bytes);
  const auto* data = reinterpret_cast<const uint8_t*>(entry.bytes.data());
  entry.accepted = loaded_.process->send({data, entry.bytes.size()}, msg_class, message);
}

// --- What happens in the process ---

void SimulatedNode::note(uint64_t number, const std::string& text) {
  witness_.noted(place_.host, number, text);
}

void SimulatedNode::sent(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) {
  if (port != kLeadPort && port != kRequestPort)
    return witness_.broke(place_.host, "a datagram to port " + std::to_string(port));
  if (address == 0) return;  // no lead is known
  send_(port == kLeadPort ? lead::Channel::kControl : lead::Channel::kData, address,
        Bytes(bytes.begin(), bytes.end()));
}
void SimulatedNode::appeared(const char* path) {
  witness_.appeared(place_.host, path);
}
void SimulatedNode::logged(uint32_t point, const char* text) {
  note(point, text != nullptr ? text : std::string());
}
void SimulatedNode::stopping() {
  witness_.stopping(place_.host);
}
void SimulatedNode::stuck(const char* why) {
  witness_.broke(place_.host, why);
}

void SimulatedNode::file_ended(uint64_t status, const char* path, uint32_t, uint32_t location,
                               uint32_t xact, uint32_t request) {
  note(status ^ xact, texts_ ? "caller: file '" + std::string(path) + "' ended" : "");
  if (request != 0)
    diary_.requests[request].outcomes.push_back(status);
  else
    diary_.pushed[{xact, location, path}].outcomes.push_back(status);
  witness_.file_ended(place_.host, path, location, status);
}
void SimulatedNode::push_started(std::span<const char* const> paths, uint32_t location,
                                 uint32_t xact) {
  note(xact, texts_ ? "caller: push " + std::to_string(xact) + " started" : "");
  for (const char* path : paths) ++diary_.pushed[{xact, location, path}].listed;
}
void SimulatedNode::push_ended(uint64_t status, uint32_t xact) {
  note(status ^ xact, texts_ ? "caller: push " + std::to_string(xact) + " ended" : "");
  ++diary_.push_ends[xact];
}
void SimulatedNode::message_received(uint32_t msg_class, std::span<const uint8_t> bytes) {
  note(msg_class ^ bytes.size(), texts_ ? "caller: message" : "");
  ++diary_.received[std::string(bytes.begin(), bytes.end())];
}
void SimulatedNode::message_ended(uint64_t status, uint32_t message) {
  note(status ^ message, texts_ ? "caller: own message " + std::to_string(message) + " ended" : "");
  diary_.messages[message].outcomes.push_back(status);
}
void SimulatedNode::lead_changed(uint32_t lead, uint32_t pid, bool failover) {
  note(uint64_t{lead} << 32 | pid,
       texts_ ? std::string("caller: lead changed") + (failover ? ", failover" : "") : "");
}

}  // namespace pkgdist::sim
