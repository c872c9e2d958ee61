// What is told of the pushes of a queue: lists, and what is remembered of those that have ended.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "push_figures.h"
#include "push_queue.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kMaxPast = 100;

double seconds(lead::Time from, lead::Time to) {
  return cli::rounded(
      static_cast<double>(lead::elapsed(to, from)) / static_cast<double>(lead::kSecond),
      cli::kSecondDecimals);
}

size_t complete_nodes(const lead::PushReport& report) {
  return static_cast<size_t>(
      std::count_if(report.nodes.begin(), report.nodes.end(),
                    [](const lead::PushNodeReport& node) { return is_complete(node); }));
}

Json listed(uint32_t number, const std::string& name, const std::string& state,
            uint32_t transaction, uint64_t files, uint64_t bytes, size_t nodes, size_t complete,
            double seconds) {
  return {{"event", "push"},
          {"number", number},
          {"name", name},
          {"state", state},
          {"transaction", transaction},
          {"files", files},
          {"bytes", bytes},
          {"nodes", nodes},
          {"nodes_complete", complete},
          {"seconds", seconds}};
}

}  // namespace

void PushQueue::remember(const Entry& entry, lead::Time now) {
  const lead::PushReport report = entry.report.value_or(lead::PushReport{});
  const std::set<uint32_t> wrong =
      entry.after ? entry.after->wrong_content() : std::set<uint32_t>();
  const bool good = report.complete() && wrong.empty();
  const char* state = entry.stopped ? "cancelled" : good ? "done" : "incomplete";
  past_.push_back({.number = entry.number,
                   .name = entry.push.name,
                   .state = state,
                   .transaction = entry.transaction,
                   .files = report.files,
                   .bytes = report.bytes,
                   .nodes = std::max(report.nodes.size(), report.expected_nodes),
                   .complete = complete_nodes(report),
                   .began_at = entry.began_at,
                   .ended_at = now});
  if (past_.size() > kMaxPast) past_.pop_front();
  for (const lead::PushNodeReport& node : report.nodes)
    if (is_complete(node) && !wrong.contains(node.address))
      complete_[node.address] = entry.push.name;
}

std::vector<Json> PushQueue::list(lead::Time now) const {
  std::vector<Json> lines;
  for (const Past& past : past_)
    lines.push_back(listed(past.number, past.name, past.state, past.transaction, past.files,
                           past.bytes, past.nodes, past.complete,
                           past.began_at == 0 ? 0 : seconds(past.began_at, past.ended_at)));
  for (const Entry& entry : waiting_) {
    const bool began = entry.began_at != 0;
    const lead::PushReport report = began ? lead_.push_progress() : lead::PushReport{};
    uint64_t bytes = 0;
    for (const lead::PushFile& file : entry.push.request.files) bytes += file.size;
    lines.push_back(listed(entry.number, entry.push.name,
                           !began           ? "queued"
                           : report.started ? "running"
                                            : "waiting for nodes",
                           entry.transaction, entry.push.request.files.size(), bytes,
                           std::max(report.nodes.size(), report.expected_nodes),
                           complete_nodes(report), began ? seconds(entry.began_at, now) : 0));
  }
  return lines;
}

std::vector<std::string> PushQueue::names() const {
  std::vector<std::string> names;
  for (const Entry& entry : waiting_) names.push_back(entry.push.name);
  return names;
}

std::string PushQueue::last_complete(uint32_t node) const {
  const auto found = complete_.find(node);
  return found == complete_.end() ? std::string() : found->second;
}

}  // namespace pkgdist::lead_program
