// Answers the lead's questions about the trees of its pushes (tree_work.h and content_work.h have
// what is done).
//
// A large tree takes long, so the questions have a thread of their own, which works on one after
// the other in the order in which the lead asks. A question that is asked again is not worked on
// again: the lead hears that it is under way, or the answer once more, which may have got lost.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "introduction.h"
#include "node_options.h"
#include "repeated_requests.h"

namespace pkgdist::node_program {

class TreeService {
 public:
  // Hear which names are gone, which contents were not those that the lead has pushed, and the end
  // of each file that is received again; on a thread of the service.
  struct Told {
    std::function<void(uint32_t location, const std::vector<std::string>& names)> removed;
    std::function<void(uint32_t location, const cli::NodeAnswer& answer)> compared;
    RepeatedRequests::Ended file_ended;
  };

  // Throws for keys that cannot be used.
  TreeService(const NodeOptions& options, Told told);
  // No question is worked on, and none will be.
  ~TreeService();
  TreeService(const TreeService&) = delete;
  TreeService& operator=(const TreeService&) = delete;

  // False when the question is about something else. On the thread of the event loop.
  bool take(const cli::NodeQuestion& question);

 private:
  class Work;
  const std::unique_ptr<Work> work_;
};

}  // namespace pkgdist::node_program
