// What is sent unasked to nodes that wait for the rest of a file: settling.h says when.
//
// First the segments at which the turn ended and began, as first transmissions: a node asks for the
// gap before them. Where that brings nothing, the information once more, and then a copy of what
// the nodes had asked for, or of the whole file. A copy goes out as soon as nodes have waited for
// as long as it takes on the wire (eight times that for a large file), twice as long for the next,
// and so on: so copies cost little beside the wait that they may save. A node that began a large
// file in the middle is shown probe segments before (start_search.h).
#pragma once

#include "stream/data_output.h"
#include "stream/repair_line.h"

namespace pkgdist::lead {

class Help {
 public:
  // The other parts of the stream; all outlive this.
  struct Stream {
    const Window& window;
    DataOutput& output;
    RepairLine& repairs;
  };
  enum class Outcome : uint8_t {
    kShown,        // nodes are to be asked what they make of it
    kCopied,       // repairs are due; the round goes on when they are sent
    kStreamAgain,  // the whole file is to be sent again
    kFailed,       // the content cannot be sent
  };
  struct Result {
    Outcome outcome = Outcome::kShown;
    int error = 0;  // of kFailed
  };

  explicit Help(const Stream& stream) : stream_(stream) {}

  // Once for each time that the stream went round the file.
  Result show_tail(Transfer& transfer, Time now);
  Result help(Transfer& transfer, Time now);

 private:
  int send_segment(Transfer& transfer, uint32_t segment, Time now);
  Result send_copy(Transfer& transfer, Time now);
  Result send_probes(Transfer& transfer, Time now);
  bool copy_due(const Transfer& transfer, uint32_t segments, Time now) const;

  Stream stream_;
};

}  // namespace pkgdist::lead
