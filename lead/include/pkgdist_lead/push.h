// What a push is asked to do, and how it stands.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "pkgdist_lead/time.h"

namespace pkgdist::lead {

struct PushFile {
  std::string name;   // relative to the storage location
  uint64_t size = 0;  // bytes, for progress; what is sent is read when its turn comes
};

// What becomes of a node that takes data at less than half the pace of the others.
enum class SlowNodes : uint8_t {
  kWait,   // the others wait for it
  kDrop,   // the push ends for it
  kAfter,  // it gets the rest when the others have everything
};

struct PushRequest {
  std::vector<PushFile> files;
  // What stands under these names on the nodes and is no directory is deleted first.
  std::vector<std::string> directories;
  uint32_t location = 1;
  uint32_t type = 1;
  uint32_t priority = 2;
  // The nodes that must have every file; empty: every node that is heard, at least `node_count`.
  std::vector<uint32_t> nodes;
  uint32_t node_count = 1;
  // At the start, how long after the last node that came others are waited for; later, how long a
  // node may be silent.
  Time node_timeout = 30 * kSecond;
  // The push ends after this, whatever is left; 0: no limit. Counted from start_push().
  Time max_time = 0;
  SlowNodes slow_nodes = SlowNodes::kWait;
};

// Where one node stands.
struct PushNodeReport {
  uint32_t address = 0;
  uint32_t node_id = 0;
  bool heard = false;     // answered at least once
  bool silent = false;    // has fallen silent
  bool deferred = false;  // was too slow: gets the rest when the others have everything
  uint64_t files_done = 0;
  uint64_t files_skipped = 0;  // of files_done: were there already
  uint64_t files_failed = 0;   // ended with an error
  uint64_t files_left = 0;     // have not ended
  uint64_t bytes_done = 0;     // of content, skipped files included
  uint64_t bytes_skipped = 0;  // of bytes_done: were there already
  uint64_t bytes_left = 0;     // of the files that have not ended, as the request has them
  // Of the files that it is receiving: what has arrived, as far as it has said, and what was sent.
  uint64_t bytes_in_transfer = 0;
  uint64_t bytes_sent = 0;
  uint64_t segments = 0;  // sent of the files that it was to receive, each once
  uint64_t repairs = 0;   // segments that it asked for again
  Time finished_at = 0;   // when the last file ended, 0 before
  Time last_heard = 0;    // any datagram of the node, 0: none

  // In Lead::push_report() only.
  std::map<uint32_t, uint64_t> failed;  // index in PushRequest::files -> status
  std::vector<uint32_t> open;           // indexes of the files that have not ended
};

struct PushReport {
  bool started = false;
  bool finished = false;
  Time started_at = 0;
  Time waits_since = 0;  // before it started: when the last node came, or the waiting began
  Time finished_at = 0;
  uint64_t files = 0;
  uint64_t bytes = 0;           // of content, once
  uint64_t bytes_received = 0;  // of it, files that some node has received, once
  size_t expected_nodes = 0;
  std::vector<PushNodeReport> nodes;  // heard or asked for

  // Every node that was asked for has every file.
  bool complete() const;
};

}  // namespace pkgdist::lead
