// The lead: distributes files and control messages to the nodes of a cluster.
//
// The class is pure protocol. It reads no clock, opens no socket and no file: datagrams and the
// time are handed in, datagrams go out through a DatagramSink, content comes from a ContentStore.
// The owner's loop is
//
//   for every datagram that arrived: lead.on_datagram(channel, bytes, from, now);
//   lead.run(now);                    // also when nothing arrived
//   wait for datagrams, at most until lead.next_deadline(now);
//
// One thread at a time. Sink, store and events must outlive the lead.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "pkgdist_lead/content.h"
#include "pkgdist_lead/events.h"
#include "pkgdist_lead/message.h"
#include "pkgdist_lead/push.h"
#include "pkgdist_lead/time.h"
#include "pkgdist_lead/transport.h"

namespace pkgdist::lead {

// A message's bytes at most: it goes out in one burst, which a node's socket has to hold.
inline constexpr size_t kMaxMessageSize = 1024 * 1024;

// The largest segment whose datagram still fits into 1472 bytes of UDP payload.
inline constexpr uint32_t kMaxSegmentSize = 1439;
inline constexpr uint32_t kDefaultSegmentSize = 1400;

// Nodes take another lead after 7.5 s of silence of theirs: a little later, so that the first ping
// finds every node ready.
inline constexpr Time kDefaultTakeover = 8 * kSecond;
// How long a lead that begins waits for the answer of another one, which is due at once.
inline constexpr Time kDefaultListen = 100 * kMillisecond;

struct Settings {
  uint32_t address = 0;  // own IPv4 address, host byte order
  uint32_t pid = 0;
  uint32_t node_id = 0;  // packed identity, 0 when there is none
  uint64_t seed = 0;     // start of file and transaction identifiers: different in every process
  uint32_t initial_sequence = 0;  // the first control message carries the next higher sequence
  uint32_t segment_size = kDefaultSegmentSize;  // bytes
  // Of the data stream per second, never exceeded; the nodes set the pace below it. 0: no limit.
  uint64_t rate_bits = 0;
  uint64_t max_rate_bits = 0;        // the same, when there is no rate_bits
  Time node_timeout = 30 * kSecond;  // silence after which a node counts as gone
  // Nodes send from other addresses than their own: they are known by the address that their
  // messages carry, and whoever writes another one there makes this lead send to it.
  bool multi_homed = false;

  // Beside other leads. Wall-clock seconds (since the epoch) at time 0 of the clock that is handed
  // in: tells which of two leads began earlier.
  uint64_t wall_seconds = 0;
  Time listen = 0;                   // time to ask for others before the first ping; 0: none
  bool standby = false;              // begins by standing by
  Time takeover = kDefaultTakeover;  // silence of the other lead after which a standby leads
};

struct Counters {
  uint64_t bad_datagrams = 0;      // undecodable, or with fields that make no sense
  uint64_t foreign_datagrams = 0;  // of kinds that only a lead sends, or for unknown transfers
  uint64_t control_sent = 0;       // datagrams
  uint64_t control_resent = 0;
  uint64_t nacks_received = 0;
  uint64_t infos_sent = 0;
  uint64_t segments_sent = 0;       // all of them
  uint64_t repairs_sent = 0;        // of those, in answer to requests
  uint64_t miss_done_sent = 0;      // polls about files
  uint64_t polls_sent = 0;          // of the window
  uint64_t data_bytes_sent = 0;     // UDP payload on the data channel
  uint64_t segments_requested = 0;  // by all nodes, clipped to the file
  uint64_t files_requested = 0;
  uint64_t other_lead_heard = 0;  // datagrams of other leads
  uint64_t not_leading = 0;       // datagrams of nodes that came while this lead was silent
  uint64_t misaddressed = 0;      // datagrams that name another address than they came from
};

class Lead {
 public:
  Lead(const Settings& settings, DatagramSink& sink, ContentStore& store, Events& events);
  ~Lead();
  Lead(const Lead&) = delete;
  Lead& operator=(const Lead&) = delete;

  // A datagram that arrived at the lead's control port, at its request port or at the control
  // group, where other leads are heard. `from` is the IPv4 address that it came from. A datagram
  // that names another one is dropped, unless Settings::multi_homed is set.
  void on_datagram(Channel channel, std::span<const uint8_t> bytes, uint32_t from, Time now);

  // Does everything that is due at `now`: pings, retransmissions, paced data.
  void run(Time now);

  // When run() has work again; `now` when it has work at once, kNever is never returned.
  Time next_deadline(Time now) const;

  // Begins a push; there is one at a time. A null return value means accepted, else it says why not
  // (an argument out of range, a name that cannot travel, a push that still runs). It gathers its
  // nodes once this lead leads.
  const char* start_push(PushRequest request, Time now);
  void stop_push(Time now);  // gives up what has not ended; the report says what is left
  // How the push stands. Progress leaves the lists of files empty: it takes a step for each file in
  // transfer of each node, the report one for each file of each node.
  PushReport push_progress() const;
  PushReport push_report() const;
  bool push_running() const;
  // Whether the running push is of this location and has a file of this name.
  bool push_brings(uint32_t location, const std::string& name) const;

  // Ends the running push for one node: what it lacks has this status. False when the push does not
  // have the node, or not yet.
  bool leave_out(uint32_t address, uint64_t status, Time now);

  // Reliable messages to nodes. Each returns the number by which events and message_report() tell
  // what became of it, or 0 when an argument is out of range: a class that is not 2 to 5, no bytes,
  // too many bytes, a name that cannot travel; or when this lead does not lead. Waited for are the
  // nodes of the audience that are known at this time; a node that was asked for by its address and
  // is not known counts as missed at once.
  MessageId send_message(uint32_t msg_class, std::vector<uint8_t> bytes, const Audience& audience,
                         Time now, Time timeout = kMessageTimeout);
  // Nodes give up what they still receive for the transaction. A push of this lead does not go on
  // for them.
  MessageId cancel_transaction(uint32_t xact, const Audience& audience, Time now,
                               Time timeout = kMessageTimeout);
  // Nodes delete the files, also those that they are receiving.
  MessageId delete_files(uint32_t location, const std::vector<std::string>& names,
                         const Audience& audience, Time now, Time timeout = kMessageTimeout);
  // How a message stands; the latest that are finished are remembered.
  MessageReport message_report(MessageId id) const;

  // The transaction of the present or last push, 0 before the first.
  uint32_t push_transaction() const;

  struct NodeCounts {
    size_t heard = 0;   // since this lead began, silent ones included
    size_t silent = 0;  // of these
  };
  NodeCounts node_counts() const;

  struct NodeView {
    NodeInfo info;
    Time last_heard = 0;
    bool silent = false;
  };
  // The nodes that were heard since this lead began, in no order.
  std::vector<NodeView> nodes() const;

  Role role() const;
  // The other lead that was heard last, 0 when none was.
  uint32_t other_lead() const;

  uint64_t rate_bits() const;  // of the data stream: the fixed one, or what the nodes handle
  const Counters& counters() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pkgdist::lead
