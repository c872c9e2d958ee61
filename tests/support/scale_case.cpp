#include "scale_case.h"

#include <cmath>

namespace pkgdist::test {

double necessary_sends(const ScaleCase& scale) {
  double sends = 1;
  for (int sent = 1; sent < 1000; ++sent) {
    double all_have = 1;
    for (uint32_t i = 0; i < scale.nodes; ++i) all_have *= 1 - std::pow(scale.loss_of(i), sent);
    sends += 1 - all_have;
    if (all_have == 1) break;
  }
  return sends;
}

double ScaleResult::over_ideal(const ScaleCase& scale) const {
  const double bits = static_cast<double>(scale.content()) * 8 * necessary_ratio;
  return seconds / (bits / static_cast<double>(scale.rate_bits));
}

ScaleResult run_scale(const ScaleCase& scale, LeadWatch* watch, double limit_seconds) {
  FormulaStore store(scale.files, scale.file_bytes);
  Crowd crowd(Crowd::default_settings(scale.rate_bits), store, scale.nodes, watch, scale.timeouts);
  crowd.set_latency(scale.round_trip / 2);
  for (uint32_t i = 0; i < scale.nodes; ++i) {
    const double loss = scale.loss_of(i);
    crowd.set_loss(i, loss, loss * scale.up_share, scale.start * 1'000'000 + i);
  }
  crowd.start_all();

  lead::PushRequest request = store.push_all();
  request.node_count = scale.nodes;
  ScaleResult result;
  if (crowd.start_push(std::move(request)) != nullptr) return result;
  const auto limit = static_cast<uint64_t>(limit_seconds * 1e9);
  crowd.run_until([&] { return !crowd.lead().push_running(); }, limit);

  const lead::PushReport report = crowd.lead().push_report();
  const auto since_start = [&](uint64_t at) {
    return at == 0 ? -1.0 : static_cast<double>(at - report.started_at) / 1e9;
  };
  result.nodes = crowd.files().counters();
  // What the lead believes, and what is so.
  result.complete = report.complete() && result.nodes.damaged == 0 &&
                    result.nodes.complete == uint64_t{scale.nodes} * scale.files;
  result.seconds = since_start(report.finished_at);
  result.sent_ratio =
      static_cast<double>(crowd.traffic().bytes_out) / static_cast<double>(scale.content());
  result.necessary_ratio = necessary_sends(scale);
  result.datagrams_out = crowd.traffic().datagrams_out;
  result.datagrams_in = crowd.traffic().datagrams_in;
  result.lead = crowd.lead().counters();
  for (const lead::PushNodeReport& node : report.nodes)
    result.finished.push_back(since_start(node.finished_at));
  return result;
}

}  // namespace pkgdist::test
