#include "judge.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>
#include <numeric>

#include "pkgdist/statistics.h"
#include "pkgdist/status.h"

namespace pkgdist::sim {

namespace fs = std::filesystem;
using test::disk_key;
using test::StoredFile;

namespace {

constexpr size_t kMaxViolations = 20;
constexpr char kPartial[] = ".tmp";
// Handlers that every process attaches.
constexpr uint32_t kCtrlHandlers = 5;  // lead change and four message classes
constexpr uint32_t kDataHandlers = 3;
// Tables that lookups keep once they were needed: two for each file database, one for messages.
constexpr size_t kLookupTables = 5;

std::string hex(uint64_t number) {
  char text[20];
  std::snprintf(text, sizeof text, "%lx", number);
  return text;
}

// The file at a path as a version would describe it. False when nothing of that kind is there.
bool read_file(const std::string& path, StoredFile& file) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return false;
  file.symlink = S_ISLNK(status.st_mode);
  if (file.symlink) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) return false;
    file.content.assign(target, target + length);
    return true;
  }
  if (!S_ISREG(status.st_mode)) return false;
  file.mode = status.st_mode & 07777;
  file.mtime = static_cast<uint32_t>(status.st_mtime);
  std::ifstream in(path, std::ios::binary);
  file.content.assign(std::istreambuf_iterator<char>(in), {});
  return true;
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether a message can come twice. A copy that the network made, or a datagram that was overtaken
// by its own repetition, is not marked as sent again: to a node it begins a new message.
// Repetitions come 20 ms behind at least.
bool may_repeat(const Network& network) {
  constexpr uint64_t kOvertaken = 15 * kMillisecond;
  return network.duplicates > 0 || network.jitter_ns >= kOvertaken;
}

uint32_t count_of(const SimulatedNode& node, CrtCounter counter) {
  return node.counter(Table::kCtrlTransport, static_cast<uint32_t>(counter));
}
uint32_t count_of(const SimulatedNode& node, DrtCounter counter) {
  return node.counter(Table::kDataTransport, static_cast<uint32_t>(counter));
}
uint32_t count_of(const SimulatedNode& node, CrsCounter counter) {
  return node.counter(Table::kCtrlServer, static_cast<uint32_t>(counter));
}
uint32_t count_of(const SimulatedNode& node, DrsCounter counter) {
  return node.counter(Table::kDataServer, static_cast<uint32_t>(counter));
}

}  // namespace

void Judge::violated(const std::string& what) {
  if (violations_.size() < kMaxViolations) violations_.push_back(what);
}

const FileSpec* Judge::spec(uint32_t location, const std::string& name) const {
  for (const FileSpec& file : scenario_.files)
    if (file.location == location && file.name == name) return &file;
  return nullptr;
}

bool Judge::scenario_has(Deed deed) const {
  return std::any_of(scenario_.actions.begin(), scenario_.actions.end(),
                     [deed](const Action& action) { return action.deed == deed; });
}

// --- Disks ---

void Judge::add_version(const std::string& key, const StoredFile& file) {
  versions_[key].push_back(file);
}

size_t Judge::versions(const std::string& key) const {
  const auto found = versions_.find(key);
  return found != versions_.end() ? found->second.size() : 0;
}

// The latest version that the disk's file is; -1 when it is none or there is no file.
int Judge::version_on_disk(const HostState& host, uint32_t location,
                           const std::string& name) const {
  const bool memory = location == kMemoryLocation;
  const std::string path = memory ? "/dev/shm" + host.memory_prefix + name : host.directory + name;
  StoredFile file;
  const auto known = versions_.find(disk_key(location, name));
  if (known == versions_.end() || !read_file(path, file)) return -1;
  const std::vector<StoredFile>& versions = known->second;
  // A partial file that a killed process left keeps its mode when it is written anew.
  const auto mode_fits = [&](const StoredFile& version) {
    return file.mode == version.mode ||
           (host.killed && std::any_of(versions.begin(), versions.end(),
                                       [&](const auto& other) { return other.mode == file.mode; }));
  };
  for (size_t i = versions.size(); i > 0; --i) {
    const StoredFile& version = versions[i - 1];
    if (file.symlink != version.symlink || file.content != version.content) continue;
    if (memory || file.symlink || (file.mtime == version.mtime && mode_fits(version)))
      return static_cast<int>(i - 1);
  }
  return -1;
}

void Judge::appeared(const HostState& host, const std::string& path) {
  if (path.compare(0, host.directory.size(), host.directory) != 0)
    return violated("a file appeared outside of the location: " + path);
  const std::string name = path.substr(host.directory.size());
  if (versions_.contains(disk_key(kDiskLocation, name))) {
    if (version_on_disk(host, kDiskLocation, name) < 0)
      violated("wrong content under the final name '" + name + "' in " + host.directory);
    return;
  }
  const bool partial = ends_with(name, kPartial) &&
                       versions_.contains(disk_key(kDiskLocation, name.substr(0, name.size() - 4)));
  if (!partial) violated("an unknown file appeared: " + path);
}

void Judge::has_file(const HostState& host, uint32_t location, const std::string& name,
                     size_t least_version, const std::string& who) {
  const FileSpec* file = spec(location, name);
  if (file == nullptr || file->role == Role::kDeleted || file->role == Role::kClash) return;
  if (location == kMemoryLocation) return;  // written in place: what counts is the end
  const int version = version_on_disk(host, location, name);
  if (version < static_cast<int>(least_version))
    violated(who + ": '" + name + "' ended well, but the disk has version " +
             std::to_string(version) + " of it, not " + std::to_string(least_version));
}

void Judge::is_identical(const HostState& host) {
  for (const auto& [key, versions] : versions_) {
    const auto location = static_cast<uint32_t>(key[0] - '0');
    const std::string name = key.substr(2);
    const FileSpec* file = spec(location, name);
    if (file == nullptr || file->role == Role::kClash) continue;
    const int version = version_on_disk(host, location, name);
    if (version != static_cast<int>(versions.size()) - 1)
      violated("at the end " + host.directory + " has version " + std::to_string(version) +
               " of '" + name + "', not the last of " + std::to_string(versions.size()));
  }
}

void Judge::is_tidy(const HostState& host) {
  if (host.killed) return;
  for (const auto& entry : fs::recursive_directory_iterator(host.directory))
    // What cannot be renamed stays: something else stands under its name.
    if (!entry.is_directory() && ends_with(entry.path().filename(), kPartial) &&
        entry.path().filename() != "clash.tmp")
      violated("a partial file was left: " + entry.path().string());
}

// --- Callers ---

void Judge::outcome_is_documented(size_t host, const std::string& what, const std::string& name,
                                  uint32_t location, uint64_t status, bool cancelled) {
  if (status == 0) return;
  const auto is_error = [status](std::initializer_list<int> errors) {
    return std::any_of(errors.begin(), errors.end(), [status](int error) {
      return status == PKGDIST_STATUS_FROM_ERRNO(static_cast<uint64_t>(error));
    });
  };
  const FileSpec* file = spec(location, name);
  bool allowed = false;
  if (file == nullptr) allowed |= is_error({ENOENT});  // the lead does not have it
  if (status == PKGDIST_STATUS_CANCELLED) allowed |= cancelled || scenario_has(Deed::kCancelPush);
  if (file != nullptr && file->role == Role::kDeleted) allowed |= status == PKGDIST_STATUS_DELETED;
  if (file != nullptr && file->role == Role::kClash) allowed |= is_error({EISDIR, ENOTDIR, EEXIST});
  if (scenario_has(Deed::kBreak)) allowed |= is_error({EIO, EACCES, ENOENT});
  if (scenario_has(Deed::kUpdate)) allowed |= is_error({ESTALE});
  if (!scenario_.calm) allowed |= is_error({ETIMEDOUT});
  if (!allowed)
    violated("host " + std::to_string(host) + ": " + what + " '" + name + "' ended with " +
             hex(status));
}

void Judge::file_ended(const HostState& host, const std::string& name, uint32_t location,
                       uint64_t status) {
  if (status == 0) has_file(host, location, name, 0, "the node of " + host.directory);
}

void Judge::process_ended(size_t host, const SimulatedNode& node, bool killed) {
  const Diary& diary = node.diary();
  const std::string at = "host " + std::to_string(host) + ": ";
  const auto answered = [&](size_t times, size_t expected, const std::string& what) {
    if (times > expected || (!killed && times < expected))
      violated(at + what + " was answered " + std::to_string(times) + " times instead of " +
               std::to_string(expected));
  };
  for (const auto& [number, request] : diary.requests) {
    answered(request.outcomes.size(), request.accepted == 0 ? 1 : 0, "request of " + request.name);
    if (request.accepted != 0)
      violated(at + "request of '" + request.name + "' refused: " + hex(request.accepted));
    for (uint64_t status : request.outcomes)
      outcome_is_documented(host, "request of", request.name, request.location, status,
                            request.cancelled);
  }
  for (const auto& [key, file] : diary.pushed) {
    answered(file.outcomes.size(), file.listed, "pushed " + key.name);
    for (uint64_t status : file.outcomes)
      outcome_is_documented(host, "pushed", key.name, key.location, status, false);
    if (!killed && file.listed != 0 && !diary.push_ends.contains(key.xact))
      violated(at + "push " + std::to_string(key.xact) + " was never reported as ended");
  }
  for (const auto& [number, message] : diary.messages) {
    answered(message.outcomes.size(), message.accepted == 0 ? 1 : 0, "message");
    for (uint64_t status : message.outcomes) {
      if (status == 0) acknowledged_to_nodes_.insert(message.bytes);
      if (status != 0 && (scenario_.calm || status != PKGDIST_ERR_TIMEOUT))
        violated(at + "a message to the lead ended with " + hex(status));
    }
  }
  for (const auto& [bytes, times] : diary.received) {
    if (!sent_by_leads_.contains(bytes)) violated(at + "a message that no lead sent");
    if (times != 1 && !may_repeat(scenario_.network))
      violated(at + "message '" + bytes.substr(0, 20) + "' came " + std::to_string(times) +
               " times");
    received_by_nodes_[{host, bytes}] += times;
  }
  counters_agree(host, node);
  gaps_ += count_of(node, DrtCounter::kMcOutOfSeqRecv);
  repair_requests_ += count_of(node, DrtCounter::kUcSendSingleSent);
  late_sequences_ += count_of(node, CrtCounter::kMcOutOfSeqRecv);
  nacks_ += count_of(node, CrtCounter::kMcNackSent);
}

// The lead helps nodes that ask for nothing, too: that they do ask does not show in the files.
void Judge::gaps_were_asked_for() {
  constexpr uint64_t kSome = 10;  // fewer may all have been filled meanwhile
  if (gaps_ >= kSome && repair_requests_ == 0) violated("segments were missing, nobody asked");
  if (late_sequences_ != 0 && nacks_ == 0) violated("messages were missing, nobody asked");
}

void Judge::counters_agree(size_t host, const SimulatedNode& node) {
  const Holdings holdings = node.holdings();
  const Diary& diary = node.diary();
  const auto agree = [&](uint32_t counted, size_t held, const char* what) {
    if (counted != held)
      violated("host " + std::to_string(host) + ": counters say " + std::to_string(counted) + " " +
               what + ", there are " + std::to_string(held));
  };
  using Crs = CrsCounter;
  using Drs = DrsCounter;
  agree(count_of(node, Drs::kFileAdd) - count_of(node, Drs::kFileRemove), holdings.files_received,
        "files being received");
  agree(count_of(node, Drs::kStatAdd) - count_of(node, Drs::kStatRemove), holdings.files_remembered,
        "files remembered");
  agree(count_of(node, Crs::kUcAddMsg) - count_of(node, Crs::kUcDeleteMsg), holdings.messages_sent,
        "messages to the lead");
  agree(count_of(node, Crs::kRxAddMcMsg) + count_of(node, Crs::kRxOosAddMc) +
            count_of(node, Crs::kRxAddUcMsg) + count_of(node, Crs::kRxOosAddUc) -
            count_of(node, Crs::kRxDeleteMcMsg) - count_of(node, Crs::kRxDeleteUcMsg),
        holdings.messages_received, "messages being received");
  size_t files = 0, statuses = 0, messages = 0, ends = 0;
  for (const auto& [number, request] : diary.requests) files += request.outcomes.size();
  for (const auto& [key, file] : diary.pushed) files += file.outcomes.size();
  for (const auto& [number, message] : diary.messages) statuses += message.outcomes.size();
  for (const auto& [bytes, times] : diary.received) messages += times;
  for (const auto& [xact, times] : diary.push_ends) ends += times;
  agree(count_of(node, Drs::kFileXferCb), files, "file callbacks");
  agree(count_of(node, Drs::kFileDoneCb), ends, "done callbacks");
  agree(count_of(node, Crs::kUcStatusCb), statuses, "status callbacks");
  agree(count_of(node, Crs::kMsgRecvCb), messages, "message callbacks");
}

void Judge::process_rests(size_t host, const SimulatedNode& node) {
  const Holdings holdings = node.holdings();
  const auto holds = [&](size_t number, size_t allowed, const char* what) {
    if (number != allowed)
      violated("host " + std::to_string(host) + ": at rest it holds " + std::to_string(number) +
               " " + what + " instead of " + std::to_string(allowed));
  };
  holds(holdings.files_received, 0, "files being received");
  holds(holdings.files_remembered, 0, "files remembered");
  holds(holdings.messages_received, 0, "messages being received");
  holds(holdings.messages_sent, 0, "messages to the lead");
  holds(holdings.ctrl_clients, kCtrlHandlers, "control clients");
  holds(holdings.data_clients, kDataHandlers, "data clients");
  holds(holdings.ctrl_channels, kCtrlHandlers, "control channels");
  holds(holdings.data_channels, kDataHandlers, "data channels");
  holds(holdings.threads, node.at_rest().threads, "threads");
  holds(holdings.descriptors, node.at_rest().descriptors, "descriptors");
  holds(holdings.mappings, 0, "mappings");
  const size_t kept = node.at_rest().blocks + holdings.identities + kLookupTables;
  if (holdings.blocks > kept)
    violated("host " + std::to_string(host) + ": at rest it holds " +
             std::to_string(holdings.blocks) + " blocks of memory, after its start it held " +
             std::to_string(node.at_rest().blocks));
}

// --- Messages ---

void Judge::lead_received(uint32_t process, const std::string& bytes) {
  if (!sent_by_nodes_.contains(bytes)) violated("a lead got a message that no node sent");
  if (++received_by_leads_[{process, bytes}] > 1)
    violated("a lead got message '" + bytes.substr(0, 20) + "' twice");
  delivered_to_leads_.insert(bytes);
}

void Judge::lead_was_acknowledged(size_t host, uint32_t life, const std::string& bytes) {
  acknowledged_to_leads_.insert({host, life, bytes});
}

void Judge::messages_are_settled() {
  for (const std::string& bytes : acknowledged_to_nodes_)
    if (!delivered_to_leads_.contains(bytes))
      violated("message '" + bytes.substr(0, 20) + "' was acknowledged, but no lead has it");
  for (const auto& [host, life, bytes] : acknowledged_to_leads_)
    if (!killed_.contains({host, life}) && !received_by_nodes_.contains({host, bytes}))
      violated("host " + std::to_string(host) + " acknowledged '" + bytes.substr(0, 20) +
               "', but its caller did not get it");
}

}  // namespace pkgdist::sim
