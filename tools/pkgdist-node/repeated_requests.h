// Receives files again, from a thread that waits for it: with an event loop of its own, on which
// the library calls back.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "file_requests.h"

namespace pkgdist::node_program {

// Used by one thread.
class RepeatedRequests {
 public:
  RepeatedRequests();
  RepeatedRequests(const RepeatedRequests&) = delete;
  RepeatedRequests& operator=(const RepeatedRequests&) = delete;

  // Asks the lead for the files and waits until each has ended, nothing has been heard of files for
  // ten seconds, or a signal asks to stop.
  void receive(uint32_t location, const std::vector<std::string>& names);

 private:
  const levm_handle_t loop_;
  // Those that were given up stay until the library has called them back.
  std::list<FileRequests> requests_;
};

}  // namespace pkgdist::node_program
