// Receives files again, from a thread that waits for it: with an event loop of its own, on which
// the library calls back.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "file_requests.h"

namespace pkgdist::node_program {

// Used by one thread.
class RepeatedRequests {
 public:
  // Hears the end of each file, on the thread of receive(); says why it has not come, "" when it
  // has.
  using Ended =
      std::function<std::string(uint64_t status, const std::string& path, uint32_t location)>;
  explicit RepeatedRequests(Ended on_ended);
  RepeatedRequests(const RepeatedRequests&) = delete;
  RepeatedRequests& operator=(const RepeatedRequests&) = delete;

  // Asks the lead for the files and waits until each has ended, nothing has been heard of files for
  // ten seconds, or a signal asks to stop. Why files have not come, by name.
  std::map<std::string, std::string> receive(uint32_t location,
                                             const std::vector<std::string>& names);

 private:
  const Ended on_ended_;
  const levm_handle_t loop_;
  std::map<std::string, std::string> troubles_;
  std::set<std::string> open_;  // names that have not ended
  // Those that were given up stay until the library has called them back.
  std::list<FileRequests> requests_;
};

}  // namespace pkgdist::node_program
