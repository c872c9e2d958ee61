// Every text that comes out of the events goes through escaped(): names of files may be anything.
#include "push_page.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "cli_common.h"
#include "printable.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::json;

// Places of a drawing, in its own units; it grows and shrinks with the page.
constexpr double kWidth = 900, kHeight = 260, kLeft = 52, kBottom = 30, kTop = 10, kRight = 10;
// Curves that have a colour, and rows of tables.
constexpr size_t kColours = 8;
constexpr size_t kMaxCurves = 60;
constexpr size_t kMaxRows = 50;
constexpr size_t kBins = 24;
// What is worth mentioning as a reason.
constexpr double kLateSeconds = 0.5;
constexpr double kManyRepairs = 0.01;

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : cli::printable(text)) switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  return out;
}

double number(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

std::string text(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

const Json& list(const Json& object, const char* name) {
  static const Json empty = Json::array();
  const auto found = object.find(name);
  return found != object.end() && found->is_array() ? *found : empty;
}

struct Point {
  double seconds, value;
};

// A round number a fifth to a half of the range.
double tick(double range) {
  const double unit = std::pow(10, std::floor(std::log10(range / 2)));
  for (const double step : {5.0, 2.0})
    if (step * unit <= range / 2) return step * unit;
  return unit;
}

// A drawing with axes from 0 to the given ends.
class Drawing {
 public:
  Drawing(double x_end, double y_end)
      : x_end_(std::max(x_end, 1e-3)), y_end_(std::max(y_end, 1e-9)) {}

  double x(double value) const { return kLeft + value / x_end_ * (kWidth - kLeft - kRight); }
  double y(double value) const {
    return kHeight - kBottom - value / y_end_ * (kHeight - kBottom - kTop);
  }

  void curve(const std::vector<Point>& points, const std::string& style, const std::string& title) {
    body_ += fmt::format("<polyline class=\"{}\" points=\"", style);
    for (const Point& p : points)
      body_ += fmt::format("{:.1f},{:.1f} ", x(std::min(p.seconds, x_end_)),
                           y(std::min(p.value, y_end_)));
    body_ += fmt::format("\"><title>{}</title></polyline>\n", escaped(title));
  }
  void bar(double from, double to, double value, const std::string& title) {
    body_ += fmt::format(
        "<rect class=\"bar\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\">"
        "<title>{}</title></rect>\n",
        x(from), y(value), std::max(1.0, x(to) - x(from) - 1), y(0) - y(value), escaped(title));
  }
  std::string svg(const std::string& label, const std::string& x_unit,
                  const std::string& y_unit) const {
    std::string axes;
    for (double at = 0; at <= x_end_ * 1.0001; at += tick(x_end_))
      axes += fmt::format("<text x=\"{:.1f}\" y=\"{}\" class=\"mid\">{:.4g}</text>\n", x(at),
                          kHeight - 14, at);
    for (double at = 0; at <= y_end_ * 1.0001; at += tick(y_end_))
      axes += fmt::format(
          "<line x1=\"{0}\" x2=\"{1}\" y1=\"{2:.1f}\" y2=\"{2:.1f}\"/><text x=\"{3}\" "
          "y=\"{4:.1f}\" class=\"end\">{5:.4g}</text>\n",
          kLeft, kWidth - kRight, y(at), kLeft - 5, y(at) + 4, at);
    axes += fmt::format("<text x=\"{}\" y=\"{}\" class=\"end\">{}</text>", kWidth - kRight,
                        kHeight - 1, x_unit);
    return fmt::format(
        "<svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"{}\">\n{}{}</svg>\n"
        "<p class=\"unit\">{}</p>\n",
        kWidth, kHeight, label, axes, body_, y_unit);
  }

 private:
  double x_end_, y_end_;
  std::string body_;
};

// What the events tell of a node beside its line in the summary.
struct NodeStory {
  std::vector<Point> progress;  // percent of the bytes
  double appeared = 0;          // seconds after the start of the push, 0: was there
  double silent_since = -1;
  double silent_seconds = 0;
  unsigned restarts = 0;
};

class PushPage {
 public:
  void add(const Json& event) {
    const std::string name = text(event, "event");
    const double time = number(event, "time");
    // What came before the start of the push is about nodes that were there.
    if (name == "push-started") {
      start_ = event;
      began_ = time;
      stories_.clear();
      rates_.clear();
    } else if (name == "push-finished") {
      end_ = event;
      ended_ = true;
    } else if (name == "push-progress") {
      rates_.push_back({number(event, "seconds"), number(event, "rate_bits") / 1e6});
    } else if (!text(event, "node").empty()) {
      add_of_node(stories_[text(event, "node")], name, event, time - began_);
    }
  }

  std::string html() {
    if (!ended_) throw std::runtime_error("no push has ended in these events");
    for (const Json& node : list(end_, "nodes")) nodes_.push_back(&node);
    std::stable_sort(nodes_.begin(), nodes_.end(), [](const Json* a, const Json* b) {
      const bool trouble = text(*a, "state") != "complete";
      if (trouble != (text(*b, "state") != "complete")) return trouble;
      return number(*a, "seconds") > number(*b, "seconds");
    });
    return head() + figures() + timeline() + rate() + histogram() + slowest() + repairs() +
           missing() + "</main></body></html>\n";
  }

 private:
  void add_of_node(NodeStory& story, const std::string& name, const Json& event, double seconds) {
    if (name == "progress" && number(event, "of_bytes") > 0)
      story.progress.push_back({seconds, 100 * number(event, "bytes") / number(event, "of_bytes")});
    else if (name == "node-appeared" && began_ > 0)
      story.appeared = seconds;
    else if (name == "node-restarted")
      ++story.restarts;
    else if (name == "node-silent")
      story.silent_since = seconds;
    else if (name == "node-returned" && story.silent_since >= 0) {
      story.silent_seconds += seconds - story.silent_since;
      story.silent_since = -1;
    }
  }

  double seconds() const { return number(end_, "seconds"); }

  std::string head() const {
    const bool complete = end_.value("complete", false);
    return fmt::format(
        R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width, initial-scale=1">
<title>Push {0}</title><style>
:root {{ color-scheme: light dark; --ink: #1c2330; --soft: #5c6675; --line: #d9dee6; --page: #fff; --good: #1b7f4b;
  --bad: #b3261e; --bar: #3f6fb5; }}
@media (prefers-color-scheme: dark) {{ :root {{ --ink: #e6e9ee; --soft: #a0a9b8; --line: #3a4250; --page: #161a20;
  --good: #5cc48d; --bad: #ff8a80; --bar: #7ba7e6; }} }}
body {{ font: 15px/1.45 system-ui, sans-serif; color: var(--ink); background: var(--page); margin: 0; }}
main {{ max-width: 940px; margin: 0 auto; padding: 12px 16px 40px; }}
h1 {{ font-size: 1.5em; margin: .6em 0 .2em; }} h2 {{ font-size: 1.1em; margin: 1.8em 0 .4em; }}
.good {{ color: var(--good); }} .bad {{ color: var(--bad); }} .unit, .soft {{ color: var(--soft); margin: .2em 0; }}
dl {{ display: grid; grid-template-columns: repeat(auto-fit, minmax(150px, 1fr)); gap: 10px 18px; margin: 1em 0; }}
dt {{ color: var(--soft); font-size: .85em; }} dd {{ margin: 0; font-size: 1.15em; }}
svg {{ width: 100%; height: auto; display: block; }} svg text {{ fill: var(--soft); font-size: 12px; }}
svg line {{ stroke: var(--line); }} polyline {{ fill: none; stroke-width: 2; stroke: var(--line); }}
.mid {{ text-anchor: middle; }} .end {{ text-anchor: end; }} .bar {{ fill: var(--bar); }}
.c0 {{ stroke: #d1495b; }} .c1 {{ stroke: #3f6fb5; }} .c2 {{ stroke: #2a9d70; }} .c3 {{ stroke: #e08e1b; }}
.c4 {{ stroke: #8657b5; }} .c5 {{ stroke: #1aa0b0; }} .c6 {{ stroke: #9a6a3a; }} .c7 {{ stroke: #c2539c; }}
.key {{ white-space: nowrap; margin-right: 1em; }} .key svg {{ display: inline-block; width: 22px; height: 10px; }}
.wide {{ overflow-x: auto; }} table {{ border-collapse: collapse; width: 100%; }}
th, td {{ text-align: left; padding: 4px 12px 4px 0; border-bottom: 1px solid var(--line); vertical-align: top; }}
td.n, th.n {{ text-align: right; font-variant-numeric: tabular-nums; }} td.name {{ overflow-wrap: anywhere; }}
meter {{ width: 90px; }}
</style></head><body><main>
<h1>Push {0}: <span class="{1}">{2}</span></h1>
)",
        start_.value("transaction", 0u), complete ? "good" : "bad",
        complete ? "every node has every file" : "not complete");
  }

  std::string figures() const {
    const auto& done = end_.contains("completion") ? end_["completion"] : Json::object();
    std::string out = "<dl>";
    const auto figure = [&](const char* name, const std::string& value) {
      out += fmt::format("<div><dt>{}</dt><dd>{}</dd></div>\n", name, value);
    };
    figure("files",
           fmt::format("{}, {}", end_.value("files", 0u), format_bytes(number(end_, "bytes"))));
    figure("nodes complete",
           fmt::format("{} of {}", static_cast<uint64_t>(number(done, "nodes")),
                       std::max<size_t>(nodes_.size(), end_.value("expected_nodes", 0u))));
    figure("time", fmt::format("{:.2f} s", seconds()));
    figure("half of the nodes after", fmt::format("{:.2f} s", number(done, "p50")));
    figure("90 % after", fmt::format("{:.2f} s", number(done, "p90")));
    figure("goodput", format_bits(number(end_, "goodput_bits")));
    figure("segments sent again", fmt::format("{} of {}", end_.value("repairs_sent", uint64_t{0}),
                                              end_.value("segments_sent", uint64_t{0})));
    figure("against the ideal", ideal());
    return out + "</dl>\n";
  }

  // The content once, at the mean of the rates that the stream had.
  std::string ideal() const {
    double sum = 0;
    for (const Point& p : rates_) sum += p.value;
    const double content = number(end_, "bytes_received");
    if (sum <= 0 || content <= 0 || seconds() <= 0) return "not known";
    const double mean = sum / static_cast<double>(rates_.size()) * 1e6;
    const double best = content * 8 / mean;
    return fmt::format("{:.2f} times the {:.2f} s of {} once", seconds() / best, best,
                       format_bits(mean));
  }

  const NodeStory& story_of(const Json& node) const {
    static const NodeStory none;
    const auto found = stories_.find(text(node, "node"));
    return found != stories_.end() ? found->second : none;
  }

  std::string timeline() const {
    Drawing drawing(seconds(), 100);
    std::string keys;
    // The slowest are drawn last, above the others.
    for (size_t i = std::min(nodes_.size(), kMaxCurves); i-- > 0;) {
      const Json& node = *nodes_[i];
      std::vector<Point> points = story_of(node).progress;
      points.insert(points.begin(), {story_of(node).appeared, 0});
      if (text(node, "state") == "complete") points.push_back({number(node, "seconds"), 100});
      const std::string style = i < kColours ? fmt::format("c{}", i) : "";
      drawing.curve(points, style, text(node, "node"));
      if (i < kColours)
        keys = fmt::format(
                   "<span class=\"key\"><svg viewBox=\"0 0 22 10\"><polyline class=\"{}\" "
                   "points=\"0,5 22,5\"/></svg> {}</span> ",
                   style, escaped(text(node, "node"))) +
               keys;
    }
    return "<h2>How the nodes got on</h2>\n" +
           drawing.svg("Progress of the nodes", "seconds", "percent of the bytes") + "<p>" + keys +
           "</p>\n" +
           (nodes_.size() > kColours ? "<p class=\"soft\">The slowest have a colour.</p>\n" : "");
  }

  std::string rate() const {
    if (rates_.size() < 2) return "";
    double most = 0;
    for (const Point& p : rates_) most = std::max(most, p.value);
    Drawing drawing(seconds(), most * 1.05);
    drawing.curve(rates_, "c1", "rate of the stream");
    return "<h2>Rate of the stream</h2>\n" + drawing.svg("Rate of the stream", "seconds", "Mbit/s");
  }

  std::string histogram() const {
    std::vector<double> times;
    for (const Json* node : nodes_)
      if (text(*node, "state") == "complete") times.push_back(number(*node, "seconds"));
    if (times.empty()) return "";
    const double end = *std::max_element(times.begin(), times.end()) * 1.0001 + 1e-6;
    std::vector<double> bins(kBins);
    for (const double time : times) ++bins[static_cast<size_t>(time / end * kBins)];
    Drawing drawing(end, *std::max_element(bins.begin(), bins.end()));
    const double width = end / kBins;
    for (size_t i = 0; i < kBins; ++i)
      if (bins[i] > 0)
        drawing.bar(
            width * static_cast<double>(i), width * static_cast<double>(i + 1), bins[i],
            fmt::format("{} nodes in {:.2f} to {:.2f} s", bins[i], width * static_cast<double>(i),
                        width * static_cast<double>(i + 1)));
    return "<h2>When nodes were complete</h2>\n" +
           drawing.svg("Completion times", "seconds", "nodes");
  }

  // A node whose disk was full deletes the partial file, and may miss that then.
  static std::string disk_reason(const std::string& cause) {
    const auto says = [&](const char* words) { return cause.find(words) != std::string::npos; };
    if (says("space") || says("short write")) return "its disk was full: " + cause;
    if (says("No such file")) return "its disk was full, or the file was gone: " + cause;
    return {};
  }

  // Reasons that the events give evidence of.
  std::string why(const Json& node) const {
    const NodeStory& story = story_of(node);
    std::vector<std::string> reasons;
    if (text(node, "state") == "never heard") reasons.push_back("the lead never heard it");
    if (story.appeared > kLateSeconds)
      reasons.push_back(fmt::format("joined {:.1f} s after the start", story.appeared));
    if (story.restarts > 0) reasons.push_back(fmt::format("restarted {} times", story.restarts));
    if (story.silent_seconds > 0)
      reasons.push_back(fmt::format("silent for {:.1f} s", story.silent_seconds));
    if (story.silent_since >= 0)
      reasons.push_back(fmt::format("fell silent at {:.1f} s", story.silent_since));
    if (number(node, "repair_ratio") > kManyRepairs)
      reasons.push_back(
          fmt::format("lost {:.1f} % of its segments; on the wire or in its socket buffer is not "
                      "known here",
                      100 * number(node, "repair_ratio")));
    for (const Json& failed : list(node, "failed"))
      if (const std::string reason = disk_reason(text(failed, "text")); !reason.empty()) {
        reasons.push_back(reason);
        break;
      }
    std::string all;
    for (const std::string& reason : reasons) all += (all.empty() ? "" : "; ") + reason;
    return all.empty() ? "not known" : all;
  }

  std::string slowest() const {
    std::string rows;
    for (size_t i = 0; i < std::min<size_t>(nodes_.size(), 10); ++i) {
      const Json& node = *nodes_[i];
      rows += fmt::format(
          "<tr><td>{}</td><td>{}</td><td class=\"n\">{:.2f}</td><td "
          "class=\"n\">{}</td><td>{}</td></tr>\n",
          escaped(text(node, "node")), escaped(text(node, "state")), number(node, "seconds"),
          node.value("present", uint64_t{0}), escaped(why(node)));
    }
    return table("Slowest nodes, and why",
                 "<th>node</th><th>state</th><th class=\"n\">seconds</th><th class=\"n\">had "
                 "already</th><th>why</th>",
                 rows);
  }

  std::string repairs() const {
    std::vector<const Json*> by_cost;
    for (const Json* node : nodes_)
      if (number(*node, "repairs") > 0) by_cost.push_back(node);
    if (by_cost.empty()) return "<h2>Repairs</h2>\n<p>No node asked for anything again.</p>\n";
    std::stable_sort(by_cost.begin(), by_cost.end(), [](const Json* a, const Json* b) {
      return number(*a, "repairs") > number(*b, "repairs");
    });
    const double most = number(*by_cost[0], "repairs");
    std::string rows;
    for (size_t i = 0; i < std::min(by_cost.size(), kMaxRows); ++i)
      rows += fmt::format(
          "<tr><td>{}</td><td class=\"n\">{}</td><td><meter min=\"0\" max=\"{}\" "
          "value=\"{}\"></meter></td>"
          "<td class=\"n\">{:.2f} %</td></tr>\n",
          escaped(text(*by_cost[i], "node")), number(*by_cost[i], "repairs"), most,
          number(*by_cost[i], "repairs"), 100 * number(*by_cost[i], "repair_ratio"));
    return table("Repairs",
                 "<th>node</th><th class=\"n\">asked for again</th><th></th><th class=\"n\">of its "
                 "segments</th>",
                 rows) +
           more(by_cost.size());
  }

  std::string missing() const {
    std::string rows;
    size_t count = 0;
    const auto row = [&](const Json& node, const std::string& name, const std::string& reason) {
      if (++count <= kMaxRows)
        rows += fmt::format("<tr><td>{}</td><td class=\"name\">{}</td><td>{}</td></tr>\n",
                            escaped(text(node, "node")), escaped(name), escaped(reason));
    };
    for (const Json* node : nodes_) {
      for (const Json& failed : list(*node, "failed"))
        row(*node, text(failed, "name"), text(failed, "text"));
      for (const Json& open : list(*node, "open"))
        if (open.is_string()) row(*node, open.get<std::string>(), text(*node, "state"));
    }
    if (rows.empty()) return "";
    return table("Missing", "<th>node</th><th>file</th><th>why</th>", rows) + more(count);
  }

  static std::string table(const char* title, const char* header, const std::string& rows) {
    return fmt::format("<h2>{}</h2>\n<div class=\"wide\"><table><tr>{}</tr>\n{}</table></div>\n",
                       title, header, rows);
  }
  static std::string more(size_t count) {
    return count > kMaxRows ? fmt::format("<p class=\"soft\">and {} more</p>\n", count - kMaxRows)
                            : "";
  }

  Json start_ = Json::object(), end_ = Json::object();
  double began_ = 0;
  bool ended_ = false;
  std::map<std::string, NodeStory> stories_;
  std::vector<Point> rates_;
  std::vector<const Json*> nodes_;
};

}  // namespace

std::string push_page(std::istream& events) {
  PushPage page;
  for (std::string line; std::getline(events, line);) {
    const Json event = Json::parse(line, nullptr, false);
    if (event.is_object()) page.add(event);
  }
  return page.html();
}

int report_command(const std::string& from, const std::string& to) {
  std::ifstream file;
  if (from != "-") {
    file.open(from);
    if (!file) throw std::runtime_error(fmt::format("'{}' cannot be read", from));
  }
  const std::string page = push_page(from == "-" ? std::cin : file);
  std::ofstream out(to);
  out << page;
  out.close();
  if (!out) throw std::runtime_error(fmt::format("'{}' cannot be written", to));
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
