// What must hold in every run.
//
// At any time: nothing stands under a final name but what the lead had under that name, whole, with
// its time and mode; nothing else appears on a disk but partial files. When a node says that a file
// ended well, or the lead that it ended well on a node, the file is there.
//
// Of every process, when it ends: each request was answered at most once (exactly once if it lived
// on), each pushed file as often as it was listed, each message to the lead once; no message of the
// lead came twice unless the network doubled it; gaps were asked for; statuses are documented ones;
// the counters agree with what the databases hold and the callbacks that were made. A process at
// rest holds what it held after its start.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "memory_store.h"
#include "pkgdist_lead/message.h"
#include "scenario.h"
#include "simulated_node.h"

namespace pkgdist::sim {

class Judge {
 public:
  explicit Judge(const Scenario& scenario) : scenario_(scenario) {}

  const std::vector<std::string>& violations() const { return violations_; }
  void violated(const std::string& what);

  // The lead's files get another content from here on.
  void add_version(const std::string& key, const test::StoredFile& file);
  size_t versions(const std::string& key) const;

  // Disks.
  void appeared(const HostState& host, const std::string& path);
  // The file is on the host's disk, in this version or a later one.
  void has_file(const HostState& host, uint32_t location, const std::string& name,
                size_t least_version, const std::string& who);
  void is_identical(const HostState& host);
  // What a host that was never interrupted keeps.
  void is_tidy(const HostState& host);

  // Callers.
  void file_ended(const HostState& host, const std::string& name, uint32_t location,
                  uint64_t status);
  void process_ended(size_t host, const SimulatedNode& node, bool killed);
  void process_rests(size_t host, const SimulatedNode& node);
  void gaps_were_asked_for();

  // Messages between callers and owners of leads. `process`: number of the lead's process.
  void node_sent(const std::string& bytes) { sent_by_nodes_.insert(bytes); }
  void lead_received(uint32_t process, const std::string& bytes);
  void lead_sent(const std::string& bytes) { sent_by_leads_.insert(bytes); }
  void lead_was_acknowledged(size_t host, uint32_t life, const std::string& bytes);
  void node_was_killed(size_t host, uint32_t life) { killed_.insert({host, life}); }
  void messages_are_settled();

 private:
  const FileSpec* spec(uint32_t location, const std::string& name) const;
  int version_on_disk(const HostState& host, uint32_t location, const std::string& name) const;
  bool scenario_has(Deed deed) const;
  void outcome_is_documented(size_t host, const std::string& what, const std::string& name,
                             uint32_t location, uint64_t status, bool cancelled);
  void counters_agree(size_t host, const SimulatedNode& node);

  const Scenario& scenario_;
  std::vector<std::string> violations_;
  std::map<std::string, std::vector<test::StoredFile>> versions_;  // by disk key
  std::set<std::string> sent_by_nodes_, sent_by_leads_;
  std::map<std::pair<uint32_t, std::string>, uint32_t> received_by_leads_;
  std::set<std::string> delivered_to_leads_;
  std::set<std::string> acknowledged_to_nodes_;  // by what a process was told
  std::map<std::pair<size_t, std::string>, uint32_t> received_by_nodes_;
  std::set<std::tuple<size_t, uint32_t, std::string>> acknowledged_to_leads_;
  std::set<std::pair<size_t, uint32_t>> killed_;
  uint64_t gaps_ = 0, repair_requests_ = 0, late_sequences_ = 0, nacks_ = 0;  // of all processes
};

}  // namespace pkgdist::sim
