// The parts of a push's end that are about its tree: contents, directories, names to remove.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "after_push.h"
#include "base64.h"

namespace pkgdist::lead_program {

namespace {

constexpr const char* kNotEveryFile = "it does not have every file of the push";

Json encode_texts(const std::vector<cli::NamedText>& texts) {
  Json list = Json::array();
  for (const cli::NamedText& entry : texts)
    list.push_back({cli::encode_base64(entry.name), entry.text});
  return list;
}

}  // namespace

// --- Contents ---

const char* AfterPush::why_not_compared(const Node& node) const {
  if (!node.complete) return kNotEveryFile;
  if (const char* why = why_not_asked(node); why != nullptr) return why;
  return programs_.find(node.info)->compares ? nullptr : "its program does not compare contents";
}

void AfterPush::begin_comparing() {
  if (push_.tree.checksums.empty() || push_.tree.only_list) return;
  std::vector<lead::NodeInfo> asked;
  for (const Node& node : nodes_)
    if (why_not_compared(node) == nullptr) asked.push_back(node.info);
  ask(compare_questions(push_.tree, push_.request.location), asked);
}

void AfterPush::compared_line(uint32_t node, const Inquiry::Said& said, const std::string& text) {
  Json again = Json::array();
  for (const cli::NamedText& entry : said.names) again.push_back(cli::encode_base64(entry.name));
  const bool good = text.empty() && said.problems.empty();
  if (!good) wrong_content_.insert(node);
  say_({{"event", "compared"},
        {"node", node},
        {"again", again},
        {"failed", encode_texts(said.problems)},
        {"good", good},
        {"text", text}});
}

void AfterPush::tell_comparing() {
  if (push_.tree.checksums.empty() || push_.tree.only_list) return;
  for (const lead::PushNodeReport& node : report_.nodes)
    if (!node.heard || node.silent)
      compared_line(node.address, {}, node.heard ? "silent" : "never heard");
  for (Node& node : nodes_) {
    const char* why = why_not_compared(node);
    std::string text = why != nullptr ? why : "";
    const Inquiry::Said said = why == nullptr ? said_by(node.info.address) : Inquiry::Said();
    if (why == nullptr && !said.all) text = kNoAnswer;
    for (const std::string& state : said.states)
      if (state != cli::kStateDone) text = state;
    compared_line(node.info.address, said, text);
    node.complete = node.complete && text.empty() && said.problems.empty();
  }
}

// --- Directories ---

void AfterPush::begin_directories() {
  if (push_.tree.only_list) return;
  std::vector<lead::NodeInfo> asked;
  for (const Node& node : nodes_)
    if (why_not_asked(node) == nullptr) asked.push_back(node.info);
  ask(directory_questions(push_.tree, push_.request.location), asked);
}

void AfterPush::tell_directories() {
  const auto count = std::count_if(push_.tree.directories.begin(), push_.tree.directories.end(),
                                   [](const auto& directory) { return directory.name != "."; });
  if (count == 0 || push_.tree.only_list) return;
  // Of --keep-directory-links: then a link in the place of a directory is no failure.
  const bool links_stay = push_.request.directories.empty();
  for (const Node& node : nodes_) {
    const char* why = why_not_asked(node);
    std::string text = why != nullptr ? why : "";
    const Inquiry::Said said = why == nullptr ? said_by(node.info.address) : Inquiry::Said();
    if (why == nullptr && !said.all) text = kNoAnswer;
    for (const std::string& state : said.states)
      if (state != cli::kStateDone) text = state;
    const bool done = text.empty();
    say_({{"event", "directories"},
          {"node", node.info.address},
          {"set", done ? static_cast<size_t>(count) - said.problems.size() : 0},
          {"failed", encode_texts(said.problems)},
          {"good", why != nullptr || (done && (said.problems.empty() || links_stay))},
          {"text", text}});
  }
}

// --- Names that the lead does not have ---

void AfterPush::mirror_line(uint32_t node, const std::vector<std::string>& names,
                            const std::string& text) {
  Json list = Json::array();
  for (const std::string& name : names) list.push_back(cli::encode_base64(name));
  say_({{"event", "mirror"},
        {"node", node},
        {"names", list},
        {"good", text.empty()},
        {"text", text}});
}

void AfterPush::begin_listing() {
  if (!push_.tree.mirror) return;
  std::vector<lead::NodeInfo> asked;
  for (const Node& node : nodes_)
    if (node.complete && why_not_asked(node) == nullptr) asked.push_back(node.info);
  ask(list_questions(push_.tree, push_.request.files, push_.request.location), asked);
}

void AfterPush::tell_listing() {
  if (!push_.tree.mirror) return;
  for (const lead::PushNodeReport& node : report_.nodes)
    if (!node.heard || node.silent)
      mirror_line(node.address, {}, node.heard ? "silent" : "never heard");
  for (const Node& node : nodes_) {
    const uint32_t address = node.info.address;
    const char* why = node.complete ? why_not_asked(node) : kNotEveryFile;
    if (why != nullptr) {
      mirror_line(address, {}, why);
      continue;
    }
    const Inquiry::Said said = said_by(address);
    std::string text = said.all ? "" : kNoAnswer;
    for (const std::string& state : said.states)
      if (state != cli::kStateDone) text = state;
    for (const cli::NamedText& problem : said.problems)
      if (push_.tree.filter.takes(problem.name)) text = problem.name + ": " + problem.text;
    if (text.empty()) going_[address] = names_to_remove(said.names, push_.tree.filter);
    mirror_line(address, text.empty() ? going_[address] : std::vector<std::string>(), text);
  }
}

// Nodes with the same names are asked together.
void AfterPush::begin_removing() {
  if (push_.tree.only_list) return;
  std::map<std::vector<std::string>, std::vector<lead::NodeInfo>> together;
  for (const Node& node : nodes_)
    if (const auto found = going_.find(node.info.address); found != going_.end())
      together[found->second].push_back(node.info);
  for (auto& [names, nodes] : together) ask(remove_questions(names, push_.request.location), nodes);
}

void AfterPush::tell_removing() {
  for (const auto& inquiry : inquiries_)
    for (const auto& [node, said] : inquiry->said()) {
      const std::vector<std::string>& names = going_.at(node);
      std::vector<cli::NamedText> failed;
      for (size_t i = 0; i < names.size(); ++i) {
        const std::string state = i < said.states.size() ? said.states[i] : kNoAnswer;
        if (state != cli::kStateAbsent) failed.push_back({names[i], state});
      }
      say_({{"event", "mirrored"},
            {"node", node},
            {"removed", names.size() - failed.size()},
            {"failed", encode_texts(failed)}});
    }
}

}  // namespace pkgdist::lead_program
