#include "top_picture.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>

#include "cli_common.h"
#include "counted.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kSideColumns = 29;  // "10.200.100.100 99% heard 16 s"
constexpr size_t kLeastSide = 60;    // columns of a screen that has room for it
constexpr size_t kSlowestShown = 10;
constexpr size_t kPlotRows = 3;
constexpr size_t kHeadRows = 2, kFootRows = 2;

std::string padded(const std::string& text, size_t columns) {
  const size_t taken = columns_of(text);
  return taken < columns ? text + std::string(columns - taken, ' ') : cut(text, columns);
}

// --- One node ---

char level_digit(double share) {
  return static_cast<char>('0' + std::min(9, static_cast<int>(share * 10)));
}

Style level_style(double share) {
  return static_cast<Style>(static_cast<int>(Style::kLevel0) +
                            std::min(3, static_cast<int>(share * 4)));
}

Span cell(const NodeState& node, const TopHistory& history, TopSettings::Cells what) {
  if (!node.heard) return {"?", Style::kBad};
  if (node.files_failed != 0) return {"x", Style::kBad};
  if (is_quiet(node) || (node.silent && !node.ended)) return {"!", Style::kBad};
  if (what == TopSettings::Cells::kRepairs) {
    // Repairs per second, on a scale that doubles.
    int level = 0;
    for (double rate = history.repair_rate(node.address); rate >= 0.5 && level < 9; rate /= 2)
      ++level;
    return {level == 0 ? "." : std::to_string(level), level_style(1 - level / 9.0)};
  }
  if (node.ended) return {"#", Style::kDone};
  return {std::string(1, level_digit(node.share)), level_style(node.share)};
}

// Of several nodes in one cell the worst is shown.
double badness(const NodeState& node, const TopHistory& history, TopSettings::Cells what) {
  if (is_troubled(node)) return 1e9;
  return what == TopSettings::Cells::kRepairs ? history.repair_rate(node.address) : 1 - node.share;
}

std::string reason_of(const NodeState& node) {
  if (const std::string note = note_of(node); !note.empty()) return note;
  // The column has nine characters.
  if (node.repair_ratio >= 0.01) return fmt::format("rep. {:.0f}%", node.repair_ratio * 100);
  constexpr size_t kColumns = 7;
  std::string rate = format_bytes(node.rate);
  if (rate.size() > kColumns) rate.erase(rate.find('.'), rate.find(' ') - rate.find('.'));
  return rate + "/s";
}

std::string detail(const NodeState& node, uint64_t files) {
  const std::string note = note_of(node);
  return fmt::format("{}: {:.1f} %, {}/{} files, {}/s, {} ({:.1f} %){}{}", label_of(node),
                     node.share * 100, node.files_done + node.files_failed, files,
                     format_bytes(node.rate), cli::counted(node.repairs, "repair"),
                     node.repair_ratio * 100, note.empty() ? "" : ", ", note);
}

// --- The parts ---

using Settings = TopSettings;

std::vector<Line> cell_lines(const std::vector<const NodeState*>& nodes, const TopHistory& history,
                             const Settings& settings, size_t columns, size_t rows) {
  std::vector<Line> lines(rows);
  if (nodes.empty() || columns == 0 || rows == 0) return lines;
  const size_t group = (nodes.size() + columns * rows - 1) / (columns * rows);
  for (size_t first = 0, at = 0; first < nodes.size(); first += group, ++at) {
    const auto begin = nodes.begin() + static_cast<ptrdiff_t>(first);
    const auto end = nodes.begin() + static_cast<ptrdiff_t>(std::min(nodes.size(), first + group));
    const NodeState* worst = *std::max_element(begin, end, [&](const auto* a, const auto* b) {
      return badness(*a, history, settings.cells) < badness(*b, history, settings.cells);
    });
    const bool chosen =
        std::any_of(begin, end, [&](const auto* node) { return node->address == settings.chosen; });
    Span span = cell(*worst, history, settings.cells);
    if (chosen) span.style = Style::kChosen;
    Line& line = lines[at / columns];
    if (!line.empty() && line.back().style == span.style)
      line.back().text += span.text;
    else
      line.push_back(span);
  }
  return lines;
}

std::vector<Line> plot(const std::string& title, const std::vector<double>& values, bool utf8) {
  static constexpr std::array<const char*, 9> kBlocks{
      " ", "\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"};
  const double most = std::max(1e-9, *std::max_element(values.begin(), values.end()));
  std::vector<Line> lines{{{title, Style::kSoft}}};
  for (size_t row = kPlotRows; row-- > 0;) {
    std::string text;
    for (const double value : values) {
      const double eighths = value / most * kPlotRows * 8 - static_cast<double>(row) * 8;
      const auto level = static_cast<size_t>(std::clamp(eighths, 0.0, 8.0));
      // What is not nothing is seen.
      const size_t shown = row == 0 && value > 0 ? std::max<size_t>(1, level) : level;
      if (utf8)
        text += kBlocks[shown];
      else
        text += shown >= 4 ? '#' : shown > 0 ? '.' : ' ';
    }
    lines.push_back({{text, Style::kLevel2}});
  }
  return lines;
}

std::vector<Line> side_lines(const PushState& state, const TopHistory& history, bool utf8,
                             size_t rows) {
  std::vector<Line> lines{{{"slowest", Style::kSoft}}};
  size_t count = 0;
  for (const NodeState* node : by_trouble(state)) {
    if ((node->ended && !is_troubled(*node)) || ++count > kSlowestShown) break;
    lines.push_back({{fmt::format("{:<15.15}{:>3.0f}% {}", label_of(*node),
                                  std::min(99.0, node->share * 100), reason_of(*node)),
                      is_troubled(*node) ? Style::kBad : Style::kPlain}});
  }
  const size_t plots = 2 * (kPlotRows + 1);
  lines.resize(std::max(lines.size(), rows - std::min(rows, plots)));
  const std::vector<double> goodput = history.goodput_bits(kSideColumns);
  const std::vector<double> repairs = history.repairs(kSideColumns);
  const auto append = [&](const std::vector<Line>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
  };
  append(plot(fmt::format("arrives {}, last min", format_bits(goodput.back())), goodput, utf8));
  append(plot(fmt::format("{:.0f} repairs/s, last min", repairs.back()), repairs, utf8));
  lines.resize(std::min(lines.size(), rows));
  return lines;
}

Line head(const PushState& state, size_t columns) {
  constexpr size_t kMaxName = 24;
  const std::string name =
      fmt::format("push {}  ", state.name.empty() ? std::to_string(state.transaction)
                                                  : cut(state.name, kMaxName));
  const size_t left = columns - std::min(columns, name.size());
  return {{cut(name, columns), Style::kTitle},
          {cut(overall_line(state, left), left), Style::kTitle}};
}

Line whole_bar(const PushState& state, size_t columns) {
  double share = 0;
  for (const NodeState& node : state.nodes) share += node.share;
  if (state.nodes_in_all != 0) share /= static_cast<double>(state.nodes_in_all);
  const std::string number = fmt::format(" {:5.1f} %", std::min(share, 1.0) * 100);
  const size_t width = columns - std::min(columns, number.size());
  const auto filled = std::min(width, static_cast<size_t>(share * static_cast<double>(width)));
  return {{std::string(filled, '='), Style::kDone},
          {std::string(width - filled, '-'), Style::kSoft},
          {cut(number, columns), Style::kPlain}};
}

const char* name_of(Settings::Order order) {
  if (order == Settings::Order::kAddress) return "address";
  return order == Settings::Order::kProgress ? "progress" : "repairs";
}

const char* name_of(Settings::Filter filter) {
  if (filter == Settings::Filter::kAll) return "all";
  return filter == Settings::Filter::kUnfinished ? "unfinished" : "troubled";
}

std::string legend(const Settings& settings) {
  if (!settings.last.empty()) return settings.last;
  return settings.cells == Settings::Cells::kProgress
             ? "0-9: tenths that have arrived  #: done  x: failed  !: not heard  ?: never heard"
             : ".: no repairs  1-9: 0.5, 1, 2 .. 128 a second  x: failed  !: not heard";
}

std::string keys(const Settings& settings) {
  if (!settings.question.empty()) return settings.question;
  return fmt::format("c:{}  s:{}  f:{}  /:{}  arrows:choose{}  q:quit",
                     settings.cells == Settings::Cells::kProgress ? "progress" : "repairs",
                     name_of(settings.order), name_of(settings.filter),
                     settings.prefix.empty() ? "address" : settings.prefix,
                     settings.can_stop ? "  k:stop" : "");
}

Line footer(const PushState& state, const Settings& settings, size_t columns) {
  for (const NodeState& node : state.nodes)
    if (node.address == settings.chosen)
      return {{cut(detail(node, state.files), columns), Style::kChosen}};
  return {{cut(legend(settings), columns), Style::kSoft}};
}

size_t columns_of(const Line& line) {
  size_t columns = 0;
  for (const Span& span : line) columns += lead_program::columns_of(span.text);
  return columns;
}

}  // namespace

std::vector<const NodeState*> selected_nodes(const PushState& state, const TopHistory& history,
                                             const TopSettings& settings) {
  std::vector<const NodeState*> nodes;
  for (const NodeState& node : state.nodes) {
    if (settings.filter == Settings::Filter::kUnfinished && node.ended) continue;
    if (settings.filter == Settings::Filter::kTroubled && !is_troubled(node)) continue;
    if (!cli::format_address(node.address).starts_with(settings.prefix) &&
        !node.name.starts_with(settings.prefix))
      continue;
    nodes.push_back(&node);
  }
  std::stable_sort(nodes.begin(), nodes.end(), [&](const NodeState* a, const NodeState* b) {
    if (settings.order == Settings::Order::kProgress && a->share != b->share)
      return a->share < b->share;
    if (settings.order == Settings::Order::kRepairs) {
      const double of_a = history.repair_rate(a->address), of_b = history.repair_rate(b->address);
      if (of_a != of_b) return of_a > of_b;
    }
    return a->address < b->address;
  });
  return nodes;
}

size_t cells_in_row(const Screen& screen) {
  return screen.columns >= kLeastSide ? screen.columns - kSideColumns - 1 : screen.columns;
}

std::vector<Line> top_picture(const PushState& state, const TopHistory& history,
                              const TopSettings& settings, const Screen& screen) {
  const size_t rows = screen.rows - std::min(screen.rows, kHeadRows + kFootRows);
  const size_t columns = cells_in_row(screen);
  const bool has_side = columns < screen.columns;
  std::vector<Line> lines{head(state, screen.columns), whole_bar(state, screen.columns)};
  const std::vector<Line> cells =
      cell_lines(selected_nodes(state, history, settings), history, settings, columns, rows);
  const std::vector<Line> side =
      has_side ? side_lines(state, history, screen.utf8, rows) : std::vector<Line>();
  for (size_t row = 0; row < rows; ++row) {
    Line line = cells[row];
    if (row < side.size()) {
      line.push_back({std::string(columns + 1 - columns_of(line), ' '), Style::kPlain});
      for (const Span& span : side[row])
        line.push_back({padded(span.text, kSideColumns), span.style});
    }
    lines.push_back(std::move(line));
  }
  lines.push_back(footer(state, settings, screen.columns));
  lines.push_back({{cut(keys(settings), screen.columns), Style::kPlain}});
  lines.resize(std::min(lines.size(), screen.rows));
  return lines;
}

}  // namespace pkgdist::lead_program
