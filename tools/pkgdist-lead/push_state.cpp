#include "push_state.h"

#include <fmt/core.h>

#include <algorithm>

#include "cli_common.h"
#include "push_figures.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

double to_seconds(lead::Time time) {
  return static_cast<double>(time) / static_cast<double>(lead::kSecond);
}

NodeState node_state(const lead::PushReport& report, const lead::PushNodeReport& node,
                     const PushMeter& meter, lead::Time now) {
  NodeState state;
  state.address = node.address;
  state.heard = node.heard;
  state.silent = node.silent;
  state.deferred = node.deferred;
  state.ended = node.files_left == 0;
  state.bytes = node.bytes_done + node.bytes_in_transfer;
  const uint64_t lacking = node.bytes_left - std::min(node.bytes_left, node.bytes_in_transfer);
  if (state.ended)
    state.share = 1;
  else if (report.bytes != 0)
    state.share = 1 - static_cast<double>(lacking) / static_cast<double>(report.bytes);
  state.files_done = node.files_done;
  state.files_failed = node.files_failed;
  state.rate = meter.rate(node.address);
  state.repairs = node.repairs;
  state.repair_ratio = repair_ratio(node);
  if (node.last_heard != 0)
    state.seconds_since_heard = to_seconds(lead::elapsed(now, node.last_heard));
  return state;
}

}  // namespace

std::string label_of(const NodeState& node) {
  return node.name.empty() ? cli::format_address(node.address) : node.name;
}

bool is_quiet(const NodeState& node) {
  return node.heard && !node.ended && node.seconds_since_heard >= kQuietSeconds;
}

bool is_troubled(const NodeState& node) {
  return !node.heard || node.files_failed != 0 || is_quiet(node) ||
         (!node.ended && (node.silent || node.deferred));
}

std::string note_of(const NodeState& node) {
  if (!node.heard) return "never heard";
  const std::string failed =
      node.files_failed != 0 ? fmt::format("{} failed", node.files_failed) : "";
  if (node.ended) return failed.empty() ? "done" : failed;
  if (is_quiet(node)) {
    const auto seconds = static_cast<uint64_t>(node.seconds_since_heard);
    return seconds < 1000 ? fmt::format("heard {} s ago", seconds)
                          : fmt::format("heard {} min ago", seconds / 60);
  }
  if (node.silent) return "silent";
  return node.deferred ? "deferred" : failed;
}

std::vector<const NodeState*> by_trouble(const PushState& state) {
  std::vector<const NodeState*> nodes;
  for (const NodeState& node : state.nodes) nodes.push_back(&node);
  std::stable_sort(nodes.begin(), nodes.end(), [](const NodeState* a, const NodeState* b) {
    if (is_troubled(*a) != is_troubled(*b)) return is_troubled(*a);
    if (a->ended != b->ended) return b->ended;
    return a->share < b->share;
  });
  return nodes;
}

PushState push_state(const lead::PushReport& report, const PushMeter& meter, const PushSource& push,
                     lead::Time now) {
  PushState state;
  state.transaction = push.push_transaction();
  state.seconds = to_seconds(lead::elapsed(now, report.started_at));
  state.files = report.files;
  state.bytes = report.bytes;
  state.nodes_in_all = std::max(report.nodes.size(), report.expected_nodes);
  state.rate_bits = static_cast<double>(push.rate_bits());
  const lead::Counters& counters = push.counters();
  state.repair_share = repair_share(counters);
  state.segments_sent = counters.segments_sent;
  state.repairs_sent = counters.repairs_sent;
  state.polls_sent = counters.polls_sent + counters.miss_done_sent;
  state.seconds_left = meter.seconds_left(now);
  for (const lead::PushNodeReport& node : report.nodes) {
    state.nodes.push_back(node_state(report, node, meter, now));
    state.nodes_done += state.nodes.back().ended;
  }
  return state;
}

std::string overall_line(const PushState& state, size_t columns) {
  const auto quiet = std::count_if(state.nodes.begin(), state.nodes.end(), is_quiet);
  const std::string time = state.seconds_left ? format_duration(*state.seconds_left) + " left" : "";
  const std::string left = time.empty() ? "" : ", about " + time;
  const std::string rate = ", " + format_bits(state.rate_bits);
  const std::string repairs = fmt::format(", {:.1f} % repairs", state.repair_share * 100);
  const std::string not_heard = quiet != 0 ? fmt::format(", {} not heard", quiet) : "";
  const std::string done = fmt::format("{} of {} nodes done", state.nodes_done, state.nodes_in_all);
  const std::string brief = fmt::format("{}/{} done", state.nodes_done, state.nodes_in_all);
  for (const std::string& line :
       {done + rate + repairs + not_heard + left, done + rate + not_heard + left,
        done + not_heard + left, brief + not_heard + (time.empty() ? "" : ", " + time)})
    if (line.size() <= columns) return line;
  return brief + not_heard;
}

}  // namespace pkgdist::lead_program
