#include "push_page.h"

#include <fmt/core.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cli_common.h"
#include "counted.h"
#include "page_drawing.h"
#include "page_style.h"
#include "page_tables.h"
#include "push_story.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

using ParsedJson = nlohmann::json;

// Curves, and those that have a colour.
constexpr size_t kColours = 8;
constexpr size_t kMaxCurves = 60;
constexpr size_t kMaxMarks = 20;
constexpr size_t kBins = 24;
constexpr size_t kMaxPaths = 3;

// "2026-11-22 08:33:10 UTC"
std::string date(double seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  if (::gmtime_r(&time, &parts) == nullptr) return "";
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} UTC", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

// One section after the other.
class PushPage {
 public:
  explicit PushPage(const PushStory& story) : story_(story), end_(story.end()) {}

  std::string html() const {
    return head() + about() + figures() + timeline() + rates() + histogram() + page_tables(story_) +
           "</main></body></html>\n";
  }

 private:
  const std::vector<const ParsedJson*>& nodes() const { return story_.nodes(); }

  std::string head() const {
    const bool complete = end_.value("complete", false);
    return fmt::format(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><meta name=\"viewport\" "
        "content=\"width=device-width, initial-scale=1\">\n<title>Push {0}</title><style>{1}"
        "</style></head><body><main>\n<h1>Push {0}: <span class=\"{2}\">{3}</span></h1>\n",
        count(story_.start(), "transaction"), kPageStyle, complete ? "good" : "bad",
        complete ? "every node has every file" : "not complete");
  }

  // When, where, what and how, as far as the events tell.
  std::string about() const {
    const ParsedJson& asked = story_.requested();
    std::string out;
    const auto tell = [&](const char* name, const std::string& value) {
      if (!value.empty())
        out += fmt::format("<div><dt>{}</dt><dd>{}</dd></div>\n", name, escaped(value));
    };
    if (story_.began() > 1) tell("began", date(story_.began()));
    if (const std::string host = text(asked, "host"), address = text(asked, "address");
        !address.empty())
      tell("lead", fmt::format("{}{}{}", host, host.empty() ? "" : ", ", address));
    if (const std::string root = text(asked, "root"); !root.empty())
      tell("tree", fmt::format("{}, from {}, to location {}", paths(asked), root,
                               count(asked, "location")));
    tell("options", options(asked));
    if (const std::string version = text(asked, "version"); !version.empty())
      tell("version", "pkgdist " + version);
    return out.empty() ? "" : "<dl class=\"small\">" + out + "</dl>\n";
  }

  static std::string paths(const ParsedJson& asked) {
    const ParsedJson& all = list(asked, "paths");
    std::string out;
    for (size_t i = 0; i < std::min(all.size(), kMaxPaths); ++i)
      if (all[i].is_string()) out += (out.empty() ? "" : " ") + all[i].get<std::string>();
    if (all.size() > kMaxPaths) out += fmt::format(" and {} more", all.size() - kMaxPaths);
    return out;
  }

  static std::string options(const ParsedJson& asked) {
    if (!asked.contains("options") || !asked["options"].is_object()) return "";
    std::string out;
    for (const auto& [name, value] : asked["options"].items()) {
      out += (out.empty() ? "" : " ") + name;
      if (value.is_string() && !value.get<std::string>().empty())
        out += " " + value.get<std::string>();
    }
    return out.empty() ? "all as usual" : out;
  }

  std::string figures() const {
    const auto& done = end_.contains("completion") ? end_["completion"] : ParsedJson::object();
    std::string out = "<dl>";
    const auto figure = [&](const char* name, const std::string& value) {
      if (!value.empty()) out += fmt::format("<div><dt>{}</dt><dd>{}</dd></div>\n", name, value);
    };
    const uint64_t complete = count(done, "nodes");
    figure("files",
           fmt::format("{}, {}", count(end_, "files"), format_bytes(number(end_, "bytes"))));
    figure("nodes complete",
           fmt::format("{} of {}", complete,
                       std::max<uint64_t>(nodes().size(), count(end_, "expected_nodes"))));
    figure("time", fmt::format("{:.2f} s", story_.seconds()));
    if (complete > 1) {
      figure("half of the nodes after", fmt::format("{:.2f} s", number(done, "p50")));
      figure("90 % after", fmt::format("{:.2f} s", number(done, "p90")));
    }
    figure("goodput", format_bits(number(end_, "goodput_bits")));
    figure("segments sent again",
           fmt::format("{} of {}", count(end_, "repairs_sent"), count(end_, "segments_sent")));
    figure("against the ideal", ideal());
    return out + "</dl>\n";
  }

  // The content once, at the mean of the rates that the stream had; empty when that is not known.
  std::string ideal() const {
    double sum = 0;
    for (const Moment& moment : story_.moments()) sum += moment.stream_bits;
    const double content = number(end_, "bytes_received");
    if (sum <= 0 || content <= 0 || story_.seconds() <= 0) return "";
    const double mean = sum / static_cast<double>(story_.moments().size());
    const double best = content * 8 / mean;
    return fmt::format("{:.2f} times the {:.2f} s of {} once", story_.seconds() / best, best,
                       format_bits(mean));
  }

  std::string timeline() const {
    Drawing drawing(story_.seconds(), 100);
    std::string keys;
    // The slowest are drawn last, above the others.
    for (size_t i = std::min(nodes().size(), kMaxCurves); i-- > 0;) {
      const ParsedJson& node = *nodes()[i];
      const NodeStory& story = story_.of(node);
      std::vector<Point> points = story.progress;
      points.insert(points.begin(), {story.appeared, 0});
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
    return "<h2>What had arrived on the nodes</h2>\n" +
           drawing.html("Progress of the nodes", "seconds", "percent of the bytes") + "<p>" + keys +
           "</p>\n" +
           (nodes().size() > kColours ? "<p class=\"soft\">The slowest have a colour.</p>\n" : "");
  }

  // Three small drawings below each other, with the moments of trouble in all of them.
  std::string rates() const {
    const std::vector<Moment>& moments = story_.moments();
    if (moments.size() < 2) return troubles();
    const auto plot = [&](const char* label, const char* unit, const char* x_unit, auto&& value) {
      std::vector<Point> points;
      double most = 0;
      for (const Moment& moment : moments) {
        points.push_back({moment.seconds, value(moment)});
        most = std::max(most, value(moment));
      }
      if (most <= 0) return std::string();
      Drawing drawing(story_.seconds(), most * 1.05);
      size_t number = 0;
      for (const Trouble& one : marked()) drawing.mark(one.seconds, ++number, one.text);
      drawing.curve(points, "c1", label);
      std::string html = drawing.html(label, x_unit, unit);
      return html.replace(html.find("class=\"plot\""), 12, "class=\"plot low\"");
    };
    return "<h2>Goodput, repairs and polls</h2>\n" +
           plot("Goodput", "goodput of a node on average, Mbit/s", "",
                [](const Moment& m) { return m.goodput_bits / 1e6; }) +
           plot("Stream", "what the nodes handle of the stream, Mbit/s", "",
                [](const Moment& m) { return m.stream_bits / 1e6; }) +
           plot("Repairs", "repairs sent per second", "",
                [](const Moment& m) { return m.repairs; }) +
           plot("Polls", "polls sent per second", "seconds",
                [](const Moment& m) { return m.polls; }) +
           troubles();
  }

  std::vector<Trouble> marked() const {
    std::vector<Trouble> all = story_.troubles();
    all.resize(std::min(all.size(), kMaxMarks));
    return all;
  }

  std::string troubles() const {
    std::string rows;
    for (const Trouble& one : marked())
      rows += fmt::format("<li>{:.1f} s: {}</li>\n", one.seconds, escaped(one.text));
    if (rows.empty()) return "";
    return "<ol class=\"bad\">\n" + rows + "</ol>\n" + more(story_.troubles().size(), kMaxMarks);
  }

  std::string histogram() const {
    std::vector<double> times;
    for (const ParsedJson* node : nodes())
      if (text(*node, "state") == "complete") times.push_back(number(*node, "seconds"));
    if (times.size() < 2) return "";
    const double end = *std::max_element(times.begin(), times.end()) * 1.0001 + 1e-6;
    std::vector<double> bins(kBins);
    for (const double time : times) ++bins[static_cast<size_t>(time / end * kBins)];
    Drawing drawing(end, *std::max_element(bins.begin(), bins.end()));
    const double width = end / kBins;
    for (size_t i = 0; i < kBins; ++i) {
      const double from = width * static_cast<double>(i);
      if (bins[i] > 0)
        drawing.bar(
            from, from + width, bins[i],
            fmt::format("{} in {:.2f} to {:.2f} s",
                        cli::counted(static_cast<uint64_t>(bins[i]), "node"), from, from + width));
    }
    return "<h2>When nodes were complete</h2>\n" +
           drawing.html("Completion times", "seconds", "nodes");
  }

  const PushStory& story_;
  const ParsedJson& end_;
};

}  // namespace

std::string push_page(std::istream& events) {
  const PushStory story(events);
  return PushPage(story).html();
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
