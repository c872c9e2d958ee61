#include "progress.h"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli_common.h"
#include "output.h"
#include "push_figures.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

using cli::Output;

constexpr size_t kMaxBarWidth = 30;
// More nodes would scroll the bars off the screen.
constexpr size_t kMaxBars = 20;

struct Screen {
  size_t columns = 80;
  size_t rows = 24;
};

Screen screen() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
    return {};
  return {size.ws_col, size.ws_row};
}

double share_of(const lead::PushReport& report, const lead::PushNodeReport& node) {
  if (node.files_left == 0) return 1;
  if (report.bytes == 0) return 0;
  const uint64_t unsent = node.bytes_left - std::min(node.bytes_left, node.bytes_in_transfer);
  return 1 - static_cast<double>(unsent) / static_cast<double>(report.bytes);
}

// The bar gets the room that the rest of the line leaves, and is left out when that is little.
std::string node_line(const lead::PushReport& report, const lead::PushNodeReport& node, double rate,
                      size_t columns) {
  const double share = share_of(report, node);
  const std::string rest =
      fmt::format("{:5.1f}%  {}/{} files  {:>9}/s  {} repairs ({:.1f} %){}", share * 100,
                  node.files_done + node.files_failed, report.files, format_bytes(rate),
                  node.repairs, repair_ratio(node) * 100,
                  node.files_left == 0 ? "  done"
                  : node.silent        ? "  silent"
                                       : "");
  constexpr size_t kAround = 16 + 3;  // the address, brackets and a space
  constexpr size_t kMinBarWidth = 4;
  const size_t taken = kAround + rest.size() + 1;
  const size_t width = std::min(kMaxBarWidth, columns - std::min(columns, taken));
  const std::string address = cli::format_address(node.address);
  if (width < kMinBarWidth) return fmt::format("{:<15} {}", address, rest);
  const auto filled = static_cast<size_t>(share * static_cast<double>(width));
  return fmt::format("{:<15} [{}{}] {}", address, std::string(filled, '#'),
                     std::string(width - filled, '.'), rest);
}

// All nodes in their order; of more than fit, those that are not done first.
std::vector<const lead::PushNodeReport*> shown(const lead::PushReport& report, size_t rows) {
  std::vector<const lead::PushNodeReport*> nodes;
  for (const lead::PushNodeReport& node : report.nodes) nodes.push_back(&node);
  constexpr size_t kOthers = 3;  // for the rest of the nodes, the whole push and the cursor
  const size_t most = std::min(kMaxBars, rows - std::min(rows, kOthers));
  if (nodes.size() <= most) return nodes;
  std::stable_partition(nodes.begin(), nodes.end(),
                        [](const auto* node) { return node->files_left != 0; });
  nodes.resize(most);
  return nodes;
}

}  // namespace

std::string ProgressBars::erasure() {
  std::string text;
  for (; lines_ > 0; --lines_) text += "\x1b[1A\x1b[2K";
  return text;
}

void ProgressBars::erase() {
  if (lines_ > 0) cli::standard_output().write(erasure(), Output::Kind::kResult);
}

void ProgressBars::show(const std::vector<std::string>& lines) {
  if (cli::standard_output().waiting() != 0) return;
  const size_t columns = screen().columns;
  std::string text = erasure();
  // In the last column some terminals begin a new line.
  for (const std::string& line : lines) text += line.substr(0, columns - 1) + '\n';
  lines_ = lines.size();
  cli::standard_output().write(std::move(text), Output::Kind::kResult);
}

void ProgressBars::draw(const lead::PushReport& report, const PushMeter& meter,
                        const std::string& overall) {
  const Screen size = screen();
  const auto nodes = shown(report, size.rows);
  std::vector<std::string> lines;
  for (const lead::PushNodeReport* node : nodes)
    lines.push_back(node_line(report, *node, meter.rate(node->address), size.columns - 1));
  if (report.nodes.size() > nodes.size())
    lines.push_back(fmt::format("and {} more nodes", report.nodes.size() - nodes.size()));
  lines.push_back(overall);
  show(lines);
}

void ProgressBars::draw_line(const std::string& line) {
  show({line});
}

}  // namespace pkgdist::lead_program
