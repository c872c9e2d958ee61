// --metrics: the lead's numbers for Prometheus, at http://ADDRESS:PORT/metrics.
//
// The lead's thread publishes once a second into objects that are safe to read from any thread; the
// threads of the HTTP server read these and never touch the lead.
#pragma once

#include <memory>
#include <optional>

#include "cli_common.h"
#include "node_programs.h"
#include "pkgdist_lead/lead.h"
#include "reporter.h"

namespace pkgdist::lead_program {

class Metrics {
 public:
  // Throws std::runtime_error when the address cannot be had. The server's threads block the
  // signals that the caller blocks.
  explicit Metrics(const cli::Endpoint& endpoint);
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // Brings the numbers up to date, once a second at most.
  void run(const lead::Lead& lead, const NodePrograms& programs, uint64_t send_errors,
           lead::Time now);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// Nothing when there is no endpoint.
std::unique_ptr<Metrics> open_metrics(const std::optional<cli::Endpoint>& endpoint,
                                      Reporter& reporter);

}  // namespace pkgdist::lead_program
