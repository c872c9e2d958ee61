#include "page_tables.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "counted.h"

namespace pkgdist::lead_program {

namespace {

using ParsedJson = nlohmann::json;

constexpr size_t kMaxRows = 50;
constexpr size_t kRows = 10;
// More names are one row that can be opened.
constexpr size_t kMaxNamesInCell = 3;

std::string cell(const char* style, const char* head, const std::string& content) {
  return fmt::format("<td class=\"{}\" data-head=\"{}\">{}</td>", style, head, content);
}

std::string row(const std::string& cells) {
  return "<tr>" + cells + "</tr>\n";
}

std::string table(const std::string& title, const char* header, const std::string& rows) {
  return fmt::format("<h2>{}</h2>\n<table><tr class=\"head\">{}</tr>\n{}</table>\n", title, header,
                     rows);
}

std::string folded(const std::vector<std::string>& files) {
  std::string names;
  for (size_t i = 0; i < std::min(files.size(), kMaxRows); ++i)
    names += fmt::format("<li>{}</li>", escaped(files[i]));
  if (files.size() > kMaxRows)
    names += fmt::format("<li>and {} more</li>", files.size() - kMaxRows);
  if (files.size() > kMaxNamesInCell)
    return fmt::format("<details><summary>{}</summary><ul>{}</ul></details>",
                       cli::counted(files.size(), "file"), names);
  std::string out;
  for (const std::string& file : files) out += (out.empty() ? "" : "<br/>") + escaped(file);
  return out;
}

std::string slowest(const PushStory& story) {
  std::string rows;
  for (size_t i = 0; i < std::min(story.nodes().size(), kRows); ++i) {
    const ParsedJson& node = *story.nodes()[i];
    rows +=
        row(cell("", "", escaped(text(node, "node"))) + cell("", "", escaped(text(node, "state"))) +
            cell("n", "seconds", fmt::format("{:.2f}", number(node, "seconds"))) +
            cell("n", "had already", fmt::format("{}", count(node, "present"))) +
            cell("why", "", escaped(story.why(node))));
  }
  return table("Slowest nodes",
               "<th>node</th><th>state</th><th class=\"n\">seconds</th><th class=\"n\">had "
               "already</th><th>why</th>",
               rows);
}

std::string repairs(const PushStory& story) {
  std::vector<const ParsedJson*> by_cost;
  for (const ParsedJson* node : story.nodes())
    if (number(*node, "repairs") > 0) by_cost.push_back(node);
  if (by_cost.empty()) return "<h2>Repairs</h2>\n<p>No node asked for anything again.</p>\n";
  std::stable_sort(by_cost.begin(), by_cost.end(), [](const ParsedJson* a, const ParsedJson* b) {
    return number(*a, "repairs") > number(*b, "repairs");
  });
  const uint64_t most = count(*by_cost[0], "repairs");
  std::string rows;
  for (size_t i = 0; i < std::min(by_cost.size(), kRows); ++i) {
    const uint64_t repairs = count(*by_cost[i], "repairs");
    rows +=
        row(cell("", "", escaped(text(*by_cost[i], "node"))) +
            cell("n", "asked for again", fmt::format("{}", repairs)) +
            cell("", "",
                 fmt::format("<meter min=\"0\" max=\"{}\" value=\"{}\"></meter>", most, repairs)) +
            cell("n", "of its segments",
                 fmt::format("{:.2f} %", 100 * number(*by_cost[i], "repair_ratio"))));
  }
  return table("Repairs",
               "<th>node</th><th class=\"n\">asked for again</th><th></th><th class=\"n\">of its "
               "segments</th>",
               rows) +
         more(by_cost.size(), kRows);
}

// Nodes that were asked for and never came.
std::string absent(const PushStory& story) {
  std::string names;
  size_t named = 0;
  for (const ParsedJson* node : story.nodes())
    if (text(*node, "state") == "never heard" && ++named <= kMaxRows)
      names += (named == 1 ? "" : ", ") + escaped(text(*node, "node"));
  const uint64_t expected = count(story.end(), "expected_nodes");
  const uint64_t unnamed = expected - std::min<uint64_t>(expected, story.nodes().size());
  if (named == 0 && unnamed == 0) return "";
  return fmt::format("<h2>Nodes that never came</h2>\n<p>{}{}</p>\n{}", names,
                     unnamed != 0 ? fmt::format("{}{} of {} nodes", names.empty() ? "" : ", and ",
                                                unnamed, expected)
                                  : "",
                     more(named, kMaxRows));
}

// What each node lacks, by reason.
std::string missing(const PushStory& story) {
  std::string rows;
  size_t all = 0;
  for (const ParsedJson* node : story.nodes()) {
    if (text(*node, "state") == "never heard") continue;
    std::map<std::string, std::vector<std::string>> names;
    for (const ParsedJson& failed : list(*node, "failed"))
      names[text(failed, "text")].push_back(text(failed, "name"));
    for (const ParsedJson& open : list(*node, "open"))
      if (open.is_string()) names[text(*node, "state")].push_back(open.get<std::string>());
    for (const auto& [reason, files] : names)
      if (++all <= kMaxRows)
        rows += row(cell("", "", escaped(text(*node, "node"))) + cell("name", "", folded(files)) +
                    cell("why", "", escaped(reason)));
  }
  if (rows.empty()) return "";
  return table("Missing", "<th>node</th><th>files</th><th>why</th>", rows) + more(all, kMaxRows);
}

}  // namespace

std::string more(size_t all, size_t shown) {
  return all > shown ? fmt::format("<p class=\"soft\">and {} more</p>\n", all - shown) : "";
}

std::string page_tables(const PushStory& story) {
  return slowest(story) + repairs(story) + absent(story) + missing(story);
}

}  // namespace pkgdist::lead_program
