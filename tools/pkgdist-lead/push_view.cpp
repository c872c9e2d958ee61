#include "push_view.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "counted.h"
#include "status_text.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

using cli::counted;
using cli::format_address;
using cli::kRatioDecimals;
using cli::kSecondDecimals;
using cli::rounded;
using cli::status_text;
using OutputKind = cli::Output::Kind;
using Json = nlohmann::ordered_json;

// Lines for people about nodes or files; the events have them all.
constexpr size_t kMaxLinesOfReport = 50;
// The same while the push runs.
constexpr size_t kMaxProgressLines = 20;
// Names of files in the summary's event; nodes tell how many there are in truth.
constexpr size_t kMaxNamesInEvent = 100'000;

std::string percent(double share) {
  return fmt::format("{:.1f} %", share * 100);
}

const char* state_of(const lead::PushNodeReport& node) {
  if (!node.heard) return "never heard";
  if (node.files_left != 0)
    return node.silent ? "silent" : node.deferred ? "deferred" : "incomplete";
  return node.files_failed == 0 ? "complete" : "failed";
}

std::string why_open(const lead::PushNodeReport& node) {
  if (!node.heard) return "the node was never heard";
  return node.silent ? "the node fell silent" : "not ended when the push was stopped";
}

}  // namespace

// --- Before it begins ---

size_t absent_nodes(const lead::PushReport& report) {
  const auto present = static_cast<size_t>(
      std::count_if(report.nodes.begin(), report.nodes.end(),
                    [](const lead::PushNodeReport& node) { return node.heard && !node.silent; }));
  return report.expected_nodes - std::min(report.expected_nodes, present);
}

std::string waiting_line(const lead::PushReport& report, double seconds_left) {
  return fmt::format("waiting for {} of {} nodes, {:.0f} s left", absent_nodes(report),
                     report.expected_nodes, std::ceil(seconds_left));
}

void PushView::waiting(const lead::PushReport& report, const std::string& line,
                       double seconds_left) {
  reporter_.json().print("waiting",
                         Json{{"nodes_absent", absent_nodes(report)},
                              {"nodes", report.expected_nodes},
                              {"seconds_left", rounded(seconds_left, 1)}},
                         OutputKind::kProgress);
  reporter_.say(line, OutputKind::kProgress);
}

// --- While it runs ---

void PushView::node_events(const PushState& state) {
  for (const NodeState& node : state.nodes) {
    const Told now{node.files_done, node.files_failed, node.bytes, node.repairs,
                   static_cast<uint64_t>(is_quiet(node)) + node.silent};
    const auto [told, first] = told_.try_emplace(node.address);
    if (!first && told->second == now) continue;
    told->second = now;
    reporter_.json().print("progress",
                           Json{{"node", format_address(node.address)},
                                {"files", node.files_done},
                                {"of_files", state.files},
                                {"failed", node.files_failed},
                                {"bytes", node.bytes},
                                {"of_bytes", state.bytes},
                                {"goodput_bits", std::llround(node.rate * 8)},
                                {"repairs", node.repairs},
                                {"repair_ratio", rounded(node.repair_ratio, kRatioDecimals)},
                                {"seconds_since_heard",
                                 node.heard ? Json(rounded(node.seconds_since_heard, 1)) : Json()},
                                {"rate_bits", std::llround(state.rate_bits)}},
                           OutputKind::kProgress);
  }
}

void PushView::lines(const PushState& state) {
  size_t count = 0;
  for (const NodeState* node : by_trouble(state)) {
    if (node->ended || ++count > kMaxProgressLines) continue;
    const std::string note = note_of(*node);
    reporter_.say(fmt::format("{:6.1f} s  {}  {} of {} files, {} of {}, {}/s, {} ({}){}",
                              state.seconds, reporter_.label(node->address), node->files_done,
                              state.files, format_bytes(static_cast<double>(node->bytes)),
                              format_bytes(static_cast<double>(state.bytes)),
                              format_bytes(node->rate), counted(node->repairs, "repair"),
                              percent(node->repair_ratio), note.empty() ? "" : ", " + note),
                  OutputKind::kProgress);
  }
  if (count > kMaxProgressLines)
    reporter_.say(fmt::format("{:8}  and {}", "", counted(count - kMaxProgressLines, "more node")),
                  OutputKind::kProgress);
}

void PushView::progress(const PushState& state) {
  if (!reporter_.json().enabled()) {
    lines(state);
    return reporter_.say(fmt::format("{:6.1f} s  {}", state.seconds, overall_line(state)),
                         OutputKind::kProgress);
  }
  node_events(state);
  const auto count = [&](auto&& which) {
    return std::count_if(state.nodes.begin(), state.nodes.end(), which);
  };
  const std::optional<double> left = state.seconds_left;
  reporter_.json().print(
      "push-progress",
      Json{{"seconds", rounded(state.seconds, kSecondDecimals)},
           {"nodes", state.nodes_in_all},
           {"nodes_done", state.nodes_done},
           {"nodes_silent", count([](const NodeState& node) { return node.silent; })},
           {"nodes_not_heard", count(is_quiet)},
           {"rate_bits", std::llround(state.rate_bits)},
           {"segments_sent", state.segments_sent},
           {"repairs_sent", state.repairs_sent},
           {"polls_sent", state.polls_sent},
           {"repair_share", rounded(state.repair_share, kRatioDecimals)},
           {"eta_seconds", left ? Json(rounded(*left, 1)) : Json()}},
      OutputKind::kProgress);
}

// --- When it has ended ---

void PushView::result(const std::string& line) {
  reporter_.say(line, OutputKind::kResult);
}

void PushView::interrupted(const lead::PushReport& report) {
  Json nodes = Json::array();
  for (const lead::PushNodeReport& node : report.nodes)
    if (node.files_left != 0)
      nodes.push_back({{"node", format_address(node.address)},
                       {"files_left", node.files_left},
                       {"bytes_left", node.bytes_left}});
  reporter_.json().print("interrupted",
                         Json{{"signal", cli::signal_name(cli::stop_signal())}, {"nodes", nodes}},
                         OutputKind::kResult);
  result(cli::stop_text());
  size_t lines = 0;
  for (const lead::PushNodeReport& node : report.nodes) {
    if (node.files_left == 0 || ++lines > kMaxLinesOfReport) continue;
    result(fmt::format("{:<16}lacks {} of {} files, {}", reporter_.label(node.address),
                       node.files_left, report.files,
                       format_bytes(static_cast<double>(node.bytes_left))));
  }
  if (lines > kMaxLinesOfReport) result("and " + counted(lines - kMaxLinesOfReport, "more node"));
  if (lines != 0)
    result("push the same tree again to bring the rest: what a node has is not sent again");
}

void PushView::table(const lead::PushReport& report) {
  if (report.nodes.empty()) return;
  result(fmt::format("{:<16}{:<12}{:>8}{:>9}{:>12}{:>9}{:>10}{:>10}  {}", "node", "id", "files",
                     "present", "bytes", "seconds", "MB/s", "repairs", "state"));
  std::vector<const lead::PushNodeReport*> rows;
  for (const lead::PushNodeReport& node : report.nodes) rows.push_back(&node);
  // When there are many, those with trouble first, then the slowest.
  if (rows.size() > kMaxLinesOfReport)
    std::stable_sort(rows.begin(), rows.end(), [&](const auto* a, const auto* b) {
      const bool trouble = !is_complete(*a);
      if (trouble != !is_complete(*b)) return trouble;
      return seconds_of(report, *a) > seconds_of(report, *b);
    });
  for (size_t i = 0; i < std::min(rows.size(), kMaxLinesOfReport); ++i) {
    const lead::PushNodeReport& node = *rows[i];
    const double duration = seconds_of(report, node);
    const double rate = duration > 0 ? static_cast<double>(node.bytes_done) / duration / 1e6 : 0;
    result(fmt::format("{:<16}{:<12}{:>8}{:>9}{:>12}{:>9.2f}{:>10.1f}{:>10}  {}",
                       reporter_.label(node.address), node_id_text(node.node_id), node.files_done,
                       node.files_skipped, format_bytes(static_cast<double>(node.bytes_done)),
                       duration, rate, node.repairs, state_of(node)));
  }
  if (rows.size() > kMaxLinesOfReport)
    result("and " + counted(rows.size() - kMaxLinesOfReport, "more node"));
}

void PushView::figures_lines(const lead::PushReport& report, const PushFigures& figures) {
  const PushFigures::Completion& done = figures.completion;
  if (done.nodes > 1) {
    result(fmt::format("{} nodes complete; seconds: p50 {:.2f}, p90 {:.2f}, p99 {:.2f}, max {:.2f}",
                       done.nodes, done.p50, done.p90, done.p99, done.max));
    std::string slowest;
    for (const size_t i : figures.slowest) {
      const lead::PushNodeReport& node = report.nodes[i];
      slowest += fmt::format("{}{} {:.2f} s, {} ({})", slowest.empty() ? "" : "; ",
                             reporter_.label(node.address), seconds_of(report, node),
                             counted(node.repairs, "repair"), percent(repair_ratio(node)));
    }
    result("slowest: " + slowest);
  }
  if (figures.wire_per_content)
    result(fmt::format("goodput {}: {} of content in {:.2f} s, {:.3f} bytes sent for each",
                       format_bits(figures.goodput_bits),
                       format_bytes(static_cast<double>(report.bytes_received)), figures.seconds,
                       *figures.wire_per_content));
  result(fmt::format(
      "sent {}, {} ({}); {} on the data channel", counted(figures.segments_sent, "segment"),
      counted(figures.repairs_sent, "of them a repair", "of them repairs"),
      percent(figures.segments_sent != 0 ? static_cast<double>(figures.repairs_sent) /
                                               static_cast<double>(figures.segments_sent)
                                         : 0),
      format_bytes(static_cast<double>(figures.wire_bytes))));
}

void PushView::missing(const lead::PushReport& report, const lead::PushRequest& request) {
  size_t lines = 0;
  const auto line = [&](const lead::PushNodeReport& node, const std::string& name,
                        const std::string& why) {
    if (lines == 0) result("missing:");
    if (lines++ < kMaxLinesOfReport)
      result(fmt::format("{:<16}{:<40}  {}", reporter_.label(node.address), name, why));
  };
  if (report.nodes.size() < report.expected_nodes)
    result(fmt::format("{} of {} nodes never appeared", report.expected_nodes - report.nodes.size(),
                       report.expected_nodes));
  for (const lead::PushNodeReport& node : report.nodes) {
    for (const auto& [file, status] : node.failed)
      line(node, request.files[file].name, status_text(status));
    if (!node.heard) line(node, "every file", why_open(node));
    for (const uint32_t file : node.open) line(node, request.files[file].name, why_open(node));
  }
  if (lines > kMaxLinesOfReport) result(fmt::format("and {} more", lines - kMaxLinesOfReport));
}

void PushView::summary_event(const lead::PushReport& report, const lead::PushRequest& request,
                             const PushFigures& figures) {
  size_t names = 0;
  Json nodes = Json::array();
  for (const lead::PushNodeReport& node : report.nodes) {
    Json failed = Json::array(), open = Json::array();
    for (const auto& [file, status] : node.failed)
      if (names++ < kMaxNamesInEvent)
        failed.push_back({{"name", request.files[file].name},
                          {"status", status},
                          {"text", status_text(status)}});
    for (const uint32_t file : node.open)
      if (names++ < kMaxNamesInEvent) open.push_back(request.files[file].name);
    nodes.push_back({{"node", format_address(node.address)},
                     {"node_id", node_id_text(node.node_id)},
                     {"state", state_of(node)},
                     {"files", node.files_done},
                     {"present", node.files_skipped},
                     {"bytes", node.bytes_done},
                     {"seconds", rounded(seconds_of(report, node), kSecondDecimals)},
                     {"repairs", node.repairs},
                     {"repair_ratio", rounded(repair_ratio(node), kRatioDecimals)},
                     {"files_failed", node.files_failed},
                     {"files_left", node.files_left},
                     {"bytes_left", node.bytes_left},
                     {"failed", failed},
                     {"open", open}});
  }
  const PushFigures::Completion& done = figures.completion;
  Json slowest = Json::array();
  for (const size_t i : figures.slowest) slowest.push_back(format_address(report.nodes[i].address));
  Json event{{"complete", report.complete()},
             {"files", report.files},
             {"bytes", report.bytes},
             {"seconds", rounded(figures.seconds, kSecondDecimals)},
             {"expected_nodes", report.expected_nodes}};
  if (done.nodes != 0)
    event["completion"] = {{"nodes", done.nodes},
                           {"p50", rounded(done.p50, kSecondDecimals)},
                           {"p90", rounded(done.p90, kSecondDecimals)},
                           {"p99", rounded(done.p99, kSecondDecimals)},
                           {"max", rounded(done.max, kSecondDecimals)}};
  event.update(Json{{"slowest", slowest},
                    {"repairs", figures.repairs},
                    {"repairs_sent", figures.repairs_sent},
                    {"segments_sent", figures.segments_sent},
                    {"bytes_received", report.bytes_received},
                    {"wire_bytes", figures.wire_bytes},
                    {"goodput_bits", std::llround(figures.goodput_bits)}});
  if (figures.wire_per_content)
    event["wire_per_content"] = rounded(*figures.wire_per_content, kRatioDecimals);
  event["nodes"] = std::move(nodes);
  reporter_.json().print("push-finished", event, OutputKind::kResult);
}

void PushView::summary(const lead::PushReport& report, const lead::PushRequest& request,
                       const lead::Counters& counters) {
  const PushFigures figures = figures_of(report, counters);
  if (reporter_.json().enabled()) return summary_event(report, request, figures);
  table(report);
  figures_lines(report, figures);
  if (!report.complete()) missing(report, request);
}

}  // namespace pkgdist::lead_program
