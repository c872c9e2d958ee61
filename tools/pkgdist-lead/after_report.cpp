#include "after_report.h"

#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "base64.h"
#include "cli_common.h"
#include "counted.h"
#include "durability.h"

namespace pkgdist::lead_program {

namespace {

// Lines for people about nodes and names; events have them all.
constexpr size_t kMaxLines = 50;
constexpr size_t kMaxUnasked = 5;

// As events have them.
Json decode_texts(const Json& texts) {
  Json list = Json::array();
  for (const Json& entry : texts)
    list.push_back(
        {{"name", cli::decode_base64_text(entry.at(0).get<std::string>())}, {"text", entry.at(1)}});
  return list;
}

}  // namespace

void AfterReport::say(uint32_t node, const std::string& text) {
  if (lines_++ < kMaxLines)
    reporter_.say(fmt::format("{:<16}{}", reporter_.label(node), text), kResult);
}

void AfterReport::line(const Json& line) {
  const std::string event = line.value("event", "");
  if (event == "compared") compared(line);
  if (event == "directories") directories(line);
  if (event == "mirror") mirror(line);
  if (event == "mirrored") mirrored(line);
  if (event == "durable") durable(line);
  if (event == "command") command(line);
}

void AfterReport::compared(const Json& line) {
  const auto node = line.at("node").get<uint32_t>();
  const bool good = line.at("good").get<bool>();
  const std::string text = line.at("text").get<std::string>();
  std::vector<std::string> again;
  for (const Json& name : line.at("again"))
    again.push_back(cli::decode_base64_text(name.get<std::string>()));
  const Json failed = decode_texts(line.at("failed"));
  reporter_.json().print("compared",
                         {{"node", cli::format_address(node)},
                          {"good", good},
                          {"received_again", again},
                          {"failed", failed},
                          {"text", text}},
                         kResult);
  good_ = good_ && good;
  ++compared_;
  agree_ += good ? 1 : 0;
  if (!text.empty()) say(node, "contents are not compared: " + text);
  for (const std::string& name : again)
    say(node, name + " had another content and was received again");
  for (const Json& one : failed)
    say(node, fmt::format("{}: {}", one.at("name").get<std::string>(),
                          one.at("text").get<std::string>()));
}

void AfterReport::directories(const Json& line) {
  const auto node = line.at("node").get<uint32_t>();
  const bool good = line.at("good").get<bool>();
  const std::string text = line.at("text").get<std::string>();
  const Json failed = decode_texts(line.at("failed"));
  reporter_.json().print("directories",
                         {{"node", cli::format_address(node)},
                          {"set", line.at("set")},
                          {"failed", failed},
                          {"text", text}},
                         kResult);
  good_ = good_ && good;
  if (good && !text.empty()) {
    unasked_.push_back(node);
    why_unasked_ = text;
  } else if (!text.empty()) {
    say(node, "directories: " + text);
  }
  for (const Json& one : failed)
    say(node, fmt::format("directory {}: {}", one.at("name").get<std::string>(),
                          one.at("text").get<std::string>()));
}

void AfterReport::mirror(const Json& line) {
  const auto node = line.at("node").get<uint32_t>();
  const std::string text = line.at("text").get<std::string>();
  std::vector<std::string> names;
  for (const Json& name : line.at("names"))
    names.push_back(cli::decode_base64_text(name.get<std::string>()));
  reporter_.json().print(only_list_ ? "would-remove" : "removing",
                         {{"node", cli::format_address(node)}, {"names", names}, {"text", text}},
                         kResult);
  good_ = good_ && line.at("good").get<bool>();
  if (!text.empty()) say(node, fmt::format("nothing is removed: {}", text));
  if (names.empty()) return;
  if (reporter_.quiet && !only_list_) return;
  names_ += names.size();
  ++name_nodes_;
  for (const std::string& name : names)
    say(node, fmt::format("{} {}", only_list_ ? "would remove" : "removes", name));
}

void AfterReport::mirrored(const Json& line) {
  const auto node = line.at("node").get<uint32_t>();
  const Json failed = decode_texts(line.at("failed"));
  reporter_.json().print(
      "removed",
      {{"node", cli::format_address(node)}, {"removed", line.at("removed")}, {"failed", failed}},
      kResult);
  good_ = good_ && failed.empty();
  for (const Json& one : failed)
    say(node, fmt::format("{} is not removed: {}", one.at("name").get<std::string>(),
                          one.at("text").get<std::string>()));
}

void AfterReport::durable(const Json& line) {
  Durability::Outcomes outcomes;
  for (const Json& node : line.at("nodes")) outcomes[node.at(0)] = node.at(1);
  good_ = report_durability(reporter_, outcomes) && good_;
}

void AfterReport::command(const Json& line) {
  const auto node = line.at("node").get<uint32_t>();
  const bool good = line.at("good").get<bool>();
  const std::string text = line.at("text").get<std::string>();
  reporter_.json().print("on-complete",
                         {{"node", cli::format_address(node)}, {"done", good}, {"text", text}},
                         kResult);
  good_ = good_ && good;
  if (!good) say(node, "the command of --on-complete: " + text);
}

bool AfterReport::finish() {
  if (lines_ > kMaxLines)
    reporter_.say(fmt::format("and {} like these", cli::counted(lines_ - kMaxLines, "more line")),
                  kResult);
  if (compared_ != 0)
    reporter_.say(
        fmt::format("contents agree on {} of {}", agree_, cli::counted(compared_, "node")),
        kResult);
  if (names_ != 0)
    reporter_.say(fmt::format("{} {} on {}, with all that is in them",
                              only_list_ ? "would remove" : "to remove:",
                              cli::counted(names_, "name"), cli::counted(name_nodes_, "node")),
                  kResult);
  if (!unasked_.empty()) {
    std::string nodes;
    for (size_t i = 0; i < std::min(unasked_.size(), kMaxUnasked); ++i)
      nodes += (i == 0 ? "" : ", ") + reporter_.label(unasked_[i]);
    if (unasked_.size() > kMaxUnasked) nodes += ", ...";
    reporter_.say(fmt::format("modes and times of directories are not set on {} ({}): {}",
                              cli::counted(unasked_.size(), "node"), nodes, why_unasked_));
  }
  return good_;
}

}  // namespace pkgdist::lead_program
