// The data channel of many receiving nodes at once, under a virtual clock: what ModelNode does with
// file lists, informations, segments and questions, laid out for a thousand nodes. A datagram is
// decoded once for all of them, a node keeps bitmaps and no content, and what it keeps about a file
// stands beside what its neighbours keep about the same file.
//
// Not modelled: files that a node has already, links, cancel and delete, a change of the lead.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "node_rules.h"
#include "wire_frame.h"

namespace pkgdist::test {

class CrowdFiles {
 public:
  // A datagram of a node for the lead's request port.
  using Send = std::function<void(uint32_t node, Bytes)>;
  // Whether these are the bytes of the file at the offset.
  using Check =
      std::function<bool(const std::string& name, uint64_t offset, std::span<const uint8_t>)>;

  // Node i has the address first_address + i.
  CrowdFiles(uint32_t nodes, uint32_t first_address, const NodeTimeouts& timeouts, Send send,
             Check check);

  void on_list(uint32_t node, std::span<const uint8_t> bytes, uint64_t now);
  // A datagram of the data channel; got[i] says whether node i received it.
  void on_data(std::span<const uint8_t> bytes, std::span<const uint8_t> got, uint64_t now);
  // The node's time-out pass, to be called once in a scan period.
  void scan(uint32_t node, uint64_t now);

  struct Counters {
    uint64_t complete = 0;  // files, of all nodes
    uint64_t failed = 0;
    uint64_t stored = 0;      // segments
    uint64_t duplicates = 0;  // segments that a node had already
    uint64_t damaged = 0;     // datagrams with other bytes than the file's
    uint64_t requests = 0;    // datagrams that ask for segments
    uint64_t reports = 0;
    uint64_t time_outs = 0;
  };
  const Counters& counters() const { return counters_; }
  // Files of one node.
  uint64_t failed_of(uint32_t node) const { return nodes_[node].failed; }
  uint64_t complete_of(uint32_t node) const { return nodes_[node].complete; }

 private:
  // A file that a node is receiving. The two sets of a file of up to 64 segments are inside.
  struct Entry {
    uint64_t start = 0, repair = 0;
    uint32_t id = 0;
    uint32_t received = 0, lacking = 0;
    uint32_t first = 0, last = 0;
    uint8_t time_outs = 0;
    bool listed = false, pending = false, open = false;
    std::array<uint64_t, 2> small{};
    std::unique_ptr<uint64_t[]> large;
  };
  struct Ended {
    uint64_t time = 0;
    uint64_t status = 0;
    uint32_t id = 0;
  };
  struct File {
    std::string name;
    uint32_t location = 0, type = 0, priority = 0;
    uint32_t size = 0, segment_size = 0, segments = 0;  // once it was announced
    uint32_t busy = 0;                                  // entries that are listed
    bool live = false;                                  // stands in live_
    std::vector<Entry> entries;                         // by node; empty when none is listed
    std::vector<Ended> ended;                           // by node; empty until one has ended
  };
  struct NodeState {
    uint32_t listed = 0;  // files being received
    uint64_t last_end = 0;
    uint64_t last_data = 0;
    uint64_t complete = 0, failed = 0;
    Bytes request;  // a datagram that asks for segments, its numbers to be filled in
  };

  File& file_of(const char* name, uint32_t location);
  bool listens(const NodeState& node, uint64_t now) const;
  template <class Each>
  void each_listener(std::span<const uint8_t> got, uint64_t now, Each&& each);
  void on_info(std::span<const uint8_t> body, std::span<const uint8_t> got, uint64_t now);
  void on_segment(std::span<const uint8_t> body, std::span<const uint8_t> got, uint64_t now);
  void on_miss_done(std::span<const uint8_t> body, std::span<const uint8_t> got, uint64_t now);
  bool names(const uint32_t* nodes, uint32_t count, uint32_t node) const;
  void begin(File& file, Entry& entry, uint32_t id, uint64_t now);
  void take(File& file, uint32_t node, uint32_t segment, bool repair, uint64_t now);
  void track(File& file, uint32_t node, uint32_t segment, uint32_t expected, bool repair,
             uint64_t now);
  void request_gap(File& file, uint32_t node, uint32_t from, uint32_t to, uint64_t now);
  void request_all(File& file, uint32_t node, bool mark, uint64_t now);
  void time_out(File& file, uint32_t node, uint64_t now);
  void end(File& file, uint32_t node, uint64_t status, uint64_t now);
  static void release_if_idle(File& file);
  void send_request(uint32_t node, uint32_t id, uint32_t segment, uint32_t num);
  void send_file_request(const File& file, uint32_t node);
  void send_report(const File& file, uint32_t node, uint32_t id, uint64_t status);

  static bool is_small(const File& file) { return file.segments <= 64; }
  static uint64_t* have(const File& file, Entry& entry) {
    return is_small(file) ? entry.small.data() : entry.large.get();
  }
  static uint64_t* missing(const File& file, Entry& entry) {
    return is_small(file) ? entry.small.data() + 1 : entry.large.get() + words(file);
  }
  static size_t words(const File& file) { return (size_t{file.segments} + 63) / 64; }

  const uint32_t first_address_;
  const NodeTimeouts timeouts_;
  Send send_;
  Check check_;
  Counters counters_;
  std::vector<NodeState> nodes_;
  std::vector<std::unique_ptr<File>> files_;
  std::unordered_map<std::string, File*> by_name_;
  std::unordered_map<uint32_t, File*> by_id_;
  std::vector<File*> live_;  // with an entry that is listed; some have none any longer
};

}  // namespace pkgdist::test
