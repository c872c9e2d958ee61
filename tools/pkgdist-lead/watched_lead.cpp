#include "watched_lead.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "cli_common.h"
#include "control_path.h"
#include "counted.h"
#include "pkgdist_lead/udp_transport.h"
#include "printable.h"
#include "push_view.h"

namespace pkgdist::lead_program {

namespace {

// The names behind the first.
std::string waiting_text(const std::vector<std::string>& names) {
  if (names.size() < 2) return "";
  std::string text = "; " + cli::counted(names.size() - 1, "push waits:", "pushes wait:");
  for (size_t i = 1; i < names.size(); ++i) text += (i == 1 ? " " : ", ") + names[i];
  return text;
}

std::string push_text(const lead::PushReport& report, bool complete) {
  if (report.finished) return complete ? "every node has every file" : "ended, not complete";
  if (report.started) return "";
  return fmt::format("waits for {} of {} nodes", absent_nodes(report), report.expected_nodes);
}

}  // namespace

WatchedLead::WatchedLead(cli::LineConnection connection) : connection_(std::move(connection)) {
  connection_.send({{"command", "watch"}});
  const Json answer = connection_.answer(kAnswerSeconds);
  if (answer.value("event", "") == "error")
    throw std::runtime_error(answer.value("text", "refused"));
  if (const std::string version = answer.value("version", ""); version != cli::version())
    throw std::runtime_error(
        fmt::format("the lead that runs here has version {}, this is {}", version, cli::version()));
}

bool WatchedLead::follow(double seconds) {
  bool fresh = false;
  // What has come already is taken at once.
  for (auto line = connection_.next(seconds); line; line = connection_.next(0))
    fresh = take(*line) || fresh;
  return fresh;
}

void WatchedLead::stop_for(uint32_t node) {
  connection_.send({{"stop_for", node}});
}

bool WatchedLead::take(const Json& line) {
  const std::string event = line.value("event", "");
  if (event == "host") names_.set_host(line.at("node"), line.at("name"));
  if (event == "idle") take_idle(line);
  if (event == "state") take_state(line);
  return event == "state";
}

void WatchedLead::take_state(const Json& line) {
  if (const auto transaction = line.at("transaction").get<uint32_t>();
      std::exchange(transaction_, transaction) != transaction)
    meter_ = {};
  report_ = decode_report(line.at("report"));
  counters_ = decode_counters(line.at("counters"));
  rate_bits_ = line.at("rate_bits").get<uint64_t>();
  const lead::Time now = report_.finished ? report_.finished_at : lead::monotonic_now();
  if (report_.started) meter_.update(report_, now);
  state_ = push_state(report_, meter_, *this, now);
  const auto names = line.at("names").get<std::vector<std::string>>();
  if (!names.empty()) state_.name = cli::printable(names[0]);
  for (NodeState& node : state_.nodes)
    if (std::string label = names_.label(node.address); label != cli::format_address(node.address))
      node.name = std::move(label);
  const bool complete = state_.nodes_done == state_.nodes_in_all &&
                        std::all_of(state_.nodes.begin(), state_.nodes.end(),
                                    [](const NodeState& node) { return node.files_failed == 0; });
  news_ = push_text(report_, complete) + waiting_text(names);
}

void WatchedLead::take_idle(const Json& line) {
  const auto names = line.at("names").get<std::vector<std::string>>();
  news_ = names.empty()
              ? "no push runs; " +
                    cli::counted(line.at("nodes").get<size_t>(), "node is heard", "nodes are heard")
              : fmt::format("{} is at its end on the nodes", names[0]) + waiting_text(names);
}

}  // namespace pkgdist::lead_program
