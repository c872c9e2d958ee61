#include "push_bars.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>

#include "cli_common.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kAddress = 15;
constexpr size_t kShare = 6;  // "100.0%"
constexpr size_t kNote = 16;  // "heard 16 min ago", or a rate
constexpr size_t kRepairRatio = 16;
constexpr size_t kRepairs = 17;
constexpr size_t kLeastBar = 8, kUsualBar = 24, kMostBar = 60;
// More nodes than these in the eye are no help.
constexpr size_t kMaxBars = 30;
constexpr size_t kOtherRows = 3;  // for the rest of the nodes, the whole push and the cursor

// What of a node has room in a line. Columns of all lines stand below each other.
struct Layout {
  size_t bar = 0;
  size_t files = 0;  // digits of either number, 0: none
  bool ratio = false;
  bool repairs = false;
};

Layout layout(const PushState& state, size_t columns) {
  Layout out;
  const size_t digits = std::to_string(state.files).size();
  size_t left = columns - std::min(columns, kAddress + 1 + kShare + 1 + kNote);
  const auto take = [&](size_t wanted, size_t bar = kLeastBar) {
    if (left < wanted + bar + 3) return false;
    left -= wanted;
    return true;
  };
  if (take(2 * digits + 8)) out.files = digits;
  out.ratio = take(kRepairRatio);
  out.repairs = out.ratio && take(kRepairs, kUsualBar);
  if (left >= kLeastBar + 3) out.bar = std::min(kMostBar, left - 3);
  return out;
}

std::string bar(double share, size_t width) {
  const auto filled = static_cast<size_t>(share * static_cast<double>(width));
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
}

// 99.95 % and more of what is not whole does not look whole.
std::string percent(const NodeState& node) {
  const double shown = node.ended ? 100 : std::min(99.9, node.share * 100);
  return fmt::format("{:.1f}%", shown);
}

std::string node_line(const PushState& state, const NodeState& node, const Layout& layout) {
  const std::string note = note_of(node);
  std::string line = fmt::format("{0:<{1}.{1}} ", label_of(node), kAddress);
  if (layout.bar != 0) line += bar(node.share, layout.bar);
  line += fmt::format("{:>{}} ", percent(node), kShare);
  if (layout.files != 0)
    line += fmt::format("{0:>{2}}/{1:<{2}} files ", node.files_done + node.files_failed,
                        state.files, layout.files);
  line += fmt::format("{:>{}}", note.empty() ? format_bytes(node.rate) + "/s" : note, kNote);
  if (layout.ratio) line += fmt::format("{:>6.1f} % repairs", node.repair_ratio * 100);
  if (layout.repairs) line += fmt::format("{:>8} segments", node.repairs);
  return line;
}

std::string rest_line(const std::vector<const NodeState*>& rest, const Screen& screen,
                      size_t columns) {
  const std::string begin = fmt::format("and {} more  0% ", rest.size());
  const std::string end = " 100%";
  constexpr size_t kMostBins = 20;
  const size_t taken = begin.size() + end.size() + 2;
  if (columns < taken + 4) return fmt::format("and {} more", rest.size());
  return begin + "|" + histogram(rest, std::min(kMostBins, columns - taken), screen.utf8) + "|" +
         end;
}

}  // namespace

size_t columns_of(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;  // not the rest of a character
  }));
}

std::string cut(const std::string& text, size_t columns) {
  size_t at = 0;
  for (size_t taken = 0; at < text.size(); ++at)
    if ((static_cast<unsigned char>(text[at]) & 0xC0) != 0x80 && taken++ == columns) break;
  return text.substr(0, at);
}

std::string histogram(const std::vector<const NodeState*>& nodes, size_t bins, bool utf8) {
  static constexpr std::array<const char*, 9> kBlocks{
      " ", "\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};
  static constexpr std::array<const char*, 9> kLetters{" ", ".", ":", "-", "=", "+", "*", "%", "#"};
  std::vector<size_t> counts(bins);
  for (const NodeState* node : nodes)
    ++counts[std::min(bins - 1, static_cast<size_t>(node->share * static_cast<double>(bins)))];
  const size_t most = *std::max_element(counts.begin(), counts.end());
  std::string text;
  for (const size_t count : counts) {
    // One node is seen, too.
    const size_t level = most == 0 ? 0 : (count * 8 + most - 1) / most;
    text += utf8 ? kBlocks[level] : kLetters[level];
  }
  return text;
}

std::vector<std::string> bar_lines(const PushState& state, const Screen& screen) {
  const size_t columns = screen.columns - 1;
  const size_t room = screen.rows - std::min(screen.rows, kOtherRows);
  std::vector<const NodeState*> nodes, rest;
  for (const NodeState& node : state.nodes) nodes.push_back(&node);
  if (const size_t most = std::min(kMaxBars, room); nodes.size() > most) {
    nodes = by_trouble(state);
    rest.assign(nodes.begin() + static_cast<ptrdiff_t>(most), nodes.end());
    nodes.resize(most);
    // A node keeps its place as long as it is shown.
    std::sort(nodes.begin(), nodes.end(),
              [](const NodeState* a, const NodeState* b) { return a->address < b->address; });
  }
  const Layout places = layout(state, columns);
  std::vector<std::string> lines;
  for (const NodeState* node : nodes)
    lines.push_back(cut(node_line(state, *node, places), columns));
  if (!rest.empty()) lines.push_back(cut(rest_line(rest, screen, columns), columns));
  lines.push_back(cut(overall_line(state, columns), columns));
  return lines;
}

}  // namespace pkgdist::lead_program
