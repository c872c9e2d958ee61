// A receiving node under a virtual clock: the protocol rules of the receive library without its
// threads, sockets and files. Tests of the lead run whole clusters of these.
//
// Modelled: lead detection, sequencing, reassembly, NACKs and acknowledgement points of both
// streams; messages to the lead with their repetitions and their limit; file lists, cancel and
// delete, informations, skipping, segments, gap requests, all four time-outs with linear back-off
// and their limit, miss done, reports; partial files, as far as other files have their names; the
// loss of everything but the disk at a restart.
#pragma once

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

#include "node_rules.h"
#include "wire_frame.h"

namespace pkgdist::test {

struct StoredFile {
  Bytes content;
  uint32_t mode = 0;
  uint32_t mtime = 0;
  bool symlink = false;
  bool operator==(const StoredFile&) const = default;
};

// By "location:name"; outlives the node that writes it.
using Disk = std::map<std::string, StoredFile>;

inline std::string disk_key(uint32_t location, const std::string& name) {
  return std::to_string(location) + ':' + name;
}

class ModelNode {
 public:
  using Storage = Disk;
  enum class To { kControl, kData };
  using Send = std::function<void(To, Bytes)>;

  struct Identity {
    uint32_t address = 0;
    uint32_t pid = 0;
    uint32_t node_id = 0;
    uint32_t card_class = 7;
    NodeTimeouts timeouts = {};
  };

  ModelNode(Identity identity, Disk& disk, Send send);

  // `unicast`: it came to the node's own port.
  void on_control(std::span<const uint8_t> bytes, uint64_t now, bool unicast = false);
  void on_data(std::span<const uint8_t> bytes, uint64_t now);
  void run(uint64_t now);
  uint64_t next_deadline() const;

  // Hands messages about files to somebody who models the data channel in this node's place.
  using FileLists = std::function<void(std::span<const uint8_t>)>;
  void divert_file_lists(FileLists to) { file_lists_ = std::move(to); }

  // Longer names of a list are left out, as where their path would be too long.
  void limit_names(size_t longest) { longest_name_ = longest; }

  // Which segments of a partial file on its disk are good, when a transfer of it begins.
  using Good = std::function<bool(uint32_t segment)>;
  void go_on_with(Good good) { good_ = std::move(good); }

  // Asks the lead for a file, as a caller of the library would.
  void get_file(const std::string& name, uint32_t location, uint32_t type, uint32_t priority,
                uint64_t now);

  // Sends the lead a message; outcomes() tells later, by the number that is returned.
  uint32_t send_message(Bytes bytes, uint64_t now);
  enum class Outcome { kPending, kAcknowledged, kTimeout };
  const std::map<uint32_t, Outcome>& outcomes() const { return outcomes_; }
  size_t pending_messages() const { return outgoing_.size(); }

  // Messages of classes 2 to 5, as they were delivered.
  const std::vector<Bytes>& messages() const { return messages_; }
  // The lead that it follows, 0 when none; how often another one took over from a silent one, and
  // datagrams of leads that it does not follow.
  uint32_t lead() const { return lead_; }
  uint32_t lead_pid() const { return lead_pid_; }
  uint64_t failovers() const { return failovers_; }
  uint64_t foreign_lead() const { return foreign_lead_; }

  // How each file ended last, by disk key.
  const std::map<std::string, uint64_t>& ended() const { return ended_; }
  bool receiving() const { return !entries_.empty(); }

  struct Counters {
    uint64_t lists = 0;             // file lists delivered
    uint64_t control_messages = 0;  // of all classes, delivered
    uint64_t infos = 0;
    uint64_t segments = 0;    // stored
    uint64_t duplicates = 0;  // of segments
    uint64_t bad = 0;
    uint64_t skipped = 0;
    uint64_t not_found = 0;
    uint64_t time_outs = 0;
    uint64_t requests = 0;  // for segments
    uint64_t file_requests = 0;
  };
  const Counters& counters() const { return counters_; }

  // The status word of the last ping answered: what a reply to the lead must echo.
  uint64_t last_ping_status() const { return last_ping_status_; }

 private:
  uint64_t last_ping_status_ = 0;
  struct Received {  // a control message being received; without segments a placeholder
    uint32_t sequence = 0;
    bool unicast = false;
    uint32_t msg_class = 0;
    uint64_t total = 0;
    uint32_t segment_size = 0;
    std::vector<bool> have;
    Bytes data;
    uint32_t nacks = 0;
    uint64_t stamp = 0;
  };
  struct Entry {  // a file being received
    uint32_t id = 0;
    std::string name;
    uint32_t location = 0, type = 0, priority = 0;
    uint32_t xact = 0;  // of the lead's list, 0 for the node's own request
    bool pending = true, link = false, open = false;
    uint32_t size = 0, segment_size = 0, mode = 0, mtime = 0;
    uint32_t segments = 0;
    std::vector<bool> have, missing;
    uint32_t received = 0, lacking = 0;
    uint32_t first = 0, last = 0;
    Bytes content;
    uint64_t start = 0, repair = 0;
    uint32_t time_outs = 0;
  };
  struct Outgoing {  // a message to the lead
    uint32_t sequence = 0;
    Bytes bytes;
    std::vector<uint32_t> sent_again;  // by segment
    uint64_t last_send = 0;
  };
  struct Ended {
    uint32_t id = 0;
    std::string name;
    uint32_t location = 0;
    uint64_t status = 0, time = 0;
  };
  using EntryAt = std::list<Entry>::iterator;

  // control
  bool take_lead(const struct pkgdist_ctrl_msg_hdr& header, bool ping, uint64_t now);
  void on_ping(const struct pkgdist_ctrl_msg_hdr& header, uint64_t now);
  void on_message(const struct pkgdist_ctrl_msg_hdr& header, std::span<const uint8_t> body,
                  uint64_t now, bool unicast);
  void on_answer(const struct pkgdist_ctrl_msg_hdr& header, uint64_t now);
  void send_segment(const Outgoing& message, uint32_t segment, bool again);
  bool send_again(Outgoing& message, uint64_t now);
  void scan_outgoing(uint64_t now);
  bool rejects(uint32_t card_class, const struct pkgdist_ctrl_msg& body) const;
  void deliver(Received& message, uint64_t now);
  void add_placeholder(uint32_t sequence, uint64_t now, bool unicast);
  void advance_point(uint32_t done);
  std::list<Received>::iterator find_received(uint32_t sequence, bool unicast);
  void answer(uint32_t kind, uint32_t sequence, std::optional<uint32_t> segment, bool unicast);
  void scan_control(uint64_t now);

  // data
  void on_list(std::span<const uint8_t> bytes, uint64_t now);
  void on_cancel(uint32_t xact, uint64_t now);
  void on_delete(const struct pkgdist_file_send_ctrl& list, uint64_t now);
  void on_info(std::span<const uint8_t> body, uint64_t now);
  void on_segment(std::span<const uint8_t> body, uint64_t now);
  void on_miss_done(std::span<const uint8_t> body);
  bool skips(const Entry& entry) const;
  void go_on(Entry& entry, uint64_t now);
  int open_partial(const Entry& entry);
  void store_whole(const Entry& entry);
  void store(Entry& entry, uint32_t segment, const uint8_t* data, uint64_t length);
  void track(Entry& entry, uint32_t segment, uint32_t expected, bool repair, uint64_t now);
  void request_gap(Entry& entry, uint32_t from, uint32_t to, uint64_t now);
  void request_all(Entry& entry, bool mark, uint64_t now);
  bool time_out(EntryAt at, uint64_t now);
  void scan_data(uint64_t now);
  void add_entry(const std::string& name, uint32_t location, uint32_t type, uint32_t priority,
                 uint64_t now);
  void end(EntryAt at, uint64_t status, uint64_t now);
  EntryAt find_entry(const std::string& name, uint32_t location);
  EntryAt find_entry(uint32_t id);
  void send_file_request(const Entry& entry);
  void send_request(uint32_t id, uint32_t segment, uint32_t num);
  void send_report(uint32_t id, uint64_t status, const std::string& name, uint32_t location);

  Identity self_;
  Disk& disk_;
  Send send_;
  FileLists file_lists_;
  size_t longest_name_ = SIZE_MAX;
  Good good_;
  Counters counters_;

  uint32_t lead_ = 0, lead_pid_ = 0;
  uint64_t lead_heard_ = 0;
  uint32_t last_sequence_ = 0, point_ = 0, last_unicast_ = 0;
  uint64_t failovers_ = 0, foreign_lead_ = 0;
  std::vector<Bytes> messages_;
  uint32_t next_outgoing_ = 1;
  std::list<Outgoing> outgoing_;
  std::map<uint32_t, Outcome> outcomes_;
  std::list<Received> received_;
  uint64_t control_scanned_ = 0;

  std::list<Entry> entries_;
  std::unordered_map<std::string, EntryAt> by_name_;
  std::unordered_map<uint32_t, EntryAt> by_id_;
  std::list<Ended> stats_;
  std::map<std::string, uint64_t> ended_;
  uint64_t data_scanned_ = 0, last_data_ = 0;
};

}  // namespace pkgdist::test
