#include "progress.h"

#include <fmt/core.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli_common.h"
#include "push_figures.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kBarWidth = 30;
// More nodes would scroll the bars off the screen.
constexpr size_t kMaxBars = 20;

double share_of(const lead::PushReport& report, const lead::PushNodeReport& node) {
  if (node.files_left == 0) return 1;
  if (report.bytes == 0) return 0;
  const uint64_t unsent = node.bytes_left - std::min(node.bytes_left, node.bytes_in_transfer);
  return 1 - static_cast<double>(unsent) / static_cast<double>(report.bytes);
}

void draw_node(const lead::PushReport& report, const lead::PushNodeReport& node, double rate) {
  const double share = share_of(report, node);
  const auto filled = static_cast<size_t>(share * kBarWidth);
  fmt::print("{:<15} [{}{}] {:5.1f}%  {}/{} files  {:>9}/s  {} repairs ({:.1f} %){}\n",
             cli::format_address(node.address), std::string(filled, '#'),
             std::string(kBarWidth - filled, '.'), share * 100, node.files_done + node.files_failed,
             report.files, format_bytes(rate), node.repairs, repair_ratio(node) * 100,
             node.files_left == 0 ? "  done"
             : node.silent        ? "  silent"
                                  : "");
}

// All nodes in their order; of more than fit, those that are not done first.
std::vector<const lead::PushNodeReport*> shown(const lead::PushReport& report) {
  std::vector<const lead::PushNodeReport*> nodes;
  for (const lead::PushNodeReport& node : report.nodes) nodes.push_back(&node);
  if (nodes.size() <= kMaxBars) return nodes;
  std::stable_partition(nodes.begin(), nodes.end(),
                        [](const auto* node) { return node->files_left != 0; });
  nodes.resize(kMaxBars);
  return nodes;
}

}  // namespace

void ProgressBars::erase() {
  for (; lines_ > 0; --lines_) fmt::print("\x1b[1A\x1b[2K");
  std::fflush(stdout);
}

void ProgressBars::draw(const lead::PushReport& report, const PushMeter& meter,
                        const std::string& overall) {
  erase();
  const auto nodes = shown(report);
  for (const lead::PushNodeReport* node : nodes)
    draw_node(report, *node, meter.rate(node->address));
  lines_ = nodes.size() + 1;
  if (report.nodes.size() > nodes.size()) {
    fmt::print("and {} more nodes\n", report.nodes.size() - nodes.size());
    ++lines_;
  }
  fmt::print("{}\n", overall);
  std::fflush(stdout);
}

}  // namespace pkgdist::lead_program
