#include "progress.h"

#include <fmt/core.h>

#include <algorithm>
#include <string>

#include "cli_common.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kBarWidth = 30;
// More nodes would scroll the bars off the screen.
constexpr size_t kMaxBars = 20;
// Weight of the newest sample in the smoothed rate.
constexpr double kSmoothing = 0.3;

}  // namespace

void ProgressBars::erase() {
  for (; lines_ > 0; --lines_) fmt::print("\x1b[1A\x1b[2K");
  std::fflush(stdout);
}

void ProgressBars::draw_node(const lead::PushReport& report, const lead::PushNodeReport& node,
                             Sample& sample, lead::Time now) {
  const uint64_t bytes = std::min(node.bytes_done + node.bytes_in_transfer, report.bytes);
  if (now > sample.time) {
    const double gained = bytes > sample.bytes ? static_cast<double>(bytes - sample.bytes) : 0;
    const double rate = gained * 1e9 / static_cast<double>(now - sample.time);
    sample.rate = sample.time == 0 ? 0 : sample.rate + kSmoothing * (rate - sample.rate);
  }
  sample.time = now;
  sample.bytes = bytes;
  const double share = node.open.empty() ? 1.0
                       : report.bytes != 0
                           ? static_cast<double>(bytes) / static_cast<double>(report.bytes)
                           : 0.0;
  const auto filled = static_cast<size_t>(share * kBarWidth);
  fmt::print("{:<15} [{}{}] {:5.1f}%  {}/{} files  {:>9}/s  {} repairs{}\n",
             cli::format_address(node.address), std::string(filled, '#'),
             std::string(kBarWidth - filled, '.'), share * 100,
             node.files_done + node.failed.size(), report.files, format_bytes(sample.rate),
             node.repairs,
             node.silent         ? "  silent"
             : node.open.empty() ? "  done"
                                 : "");
}

void ProgressBars::draw(const lead::PushReport& report, lead::Time now) {
  erase();
  samples_.resize(std::max(samples_.size(), report.nodes.size()));
  const size_t bars = std::min(report.nodes.size(), kMaxBars);
  for (size_t i = 0; i < bars; ++i) draw_node(report, report.nodes[i], samples_[i], now);
  lines_ = bars;
  if (report.nodes.size() > bars) {
    fmt::print("and {} more nodes\n", report.nodes.size() - bars);
    ++lines_;
  }
  std::fflush(stdout);
}

}  // namespace pkgdist::lead_program
