// What arrives at the lead's request port: nodes ask for files and for segments, and say how files
// ended.
#pragma once

#include "admission.h"
#include "control/control_message.h"
#include "node_watch.h"

namespace pkgdist::lead {

class DataInput {
 public:
  DataInput(LeadParts& parts, NodeWatch& watch) : parts_(parts), watch_(watch) {}

  void on_datagram(const Frame& frame, uint32_t from, Time now);

 private:
  // File requests that a node may make at once, as with a new lead for all that it lacks, and in a
  // second. What exceeds that is not heeded: the node asks again.
  static constexpr double kRequestStock = 2048;
  static constexpr double kRequestsPerSecond = 1024;

  template <class Body, class Then>
  void handle(const Frame& frame, uint32_t address, Time now, Then&& then);
  void on_file_request(NodeIndex node, const pkgdist_data_send_req& request, Time now);
  void serve(const FileKey& key, NodeIndex node, uint32_t priority, Time now);
  void on_segment_request(NodeIndex node, const pkgdist_data_send_req_single& request, Time now);
  bool is_guest(TransferId id, NodeIndex node) const;

  LeadParts& parts_;
  NodeWatch& watch_;
  Allowance file_requests_{kRequestStock, kRequestsPerSecond};
};

}  // namespace pkgdist::lead
