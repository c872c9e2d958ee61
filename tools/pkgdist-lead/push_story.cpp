#include "push_story.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "counted.h"
#include "pkgdist/status.h"

namespace pkgdist::lead_program {

namespace {

using ParsedJson = nlohmann::json;

// What is worth mentioning as a reason.
constexpr double kLateSeconds = 0.5;
constexpr double kManyRepairs = 0.01;
// What happens to nodes within this time has one cause, most likely.
constexpr double kTogetherSeconds = 1;

// What an event about a node means for the push; empty: no trouble.
std::string trouble_text(const std::string& name) {
  if (name == "node-silent") return "silent";
  if (name == "node-returned") return "heard again";
  if (name == "node-restarted") return "restarted";
  if (name == "node-deferred") return "too slow: deferred";
  return name == "address-shared" ? "address shared with another host" : "";
}

// A node whose disk was full deletes the partial file, and may miss that then.
std::string disk_reason(const ParsedJson& failed) {
  const auto status = failed.value("status", uint64_t{0});
  const std::string cause = text(failed, "text");
  if (status == PKGDIST_STATUS_FROM_ERRNO(uint64_t{ENOSPC}) ||
      status == PKGDIST_STATUS_FROM_ERRNO(uint64_t{EDQUOT}) || status == PKGDIST_ERR_WRITE)
    return "its disk was full: " + cause;
  if (status == PKGDIST_STATUS_FROM_ERRNO(uint64_t{ENOENT}))
    return "its disk was full, or the file was gone: " + cause;
  return {};
}

}  // namespace

PushStory::PushStory(std::istream& events) {
  for (std::string line; std::getline(events, line);) {
    const ParsedJson event = ParsedJson::parse(line, nullptr, false);
    if (event.is_object()) add(event);
  }
  if (!ended_) throw std::runtime_error("no push has ended in these events");
  for (const ParsedJson& node : list(end_, "nodes")) nodes_.push_back(&node);
  std::stable_sort(nodes_.begin(), nodes_.end(), [](const ParsedJson* a, const ParsedJson* b) {
    const bool trouble = text(*a, "state") != "complete";
    if (trouble != (text(*b, "state") != "complete")) return trouble;
    return number(*a, "seconds") > number(*b, "seconds");
  });
}

void PushStory::add(const ParsedJson& event) {
  const std::string name = text(event, "event");
  const double time = number(event, "time");
  const std::string node = text(event, "node");
  if (name == "push-requested") {
    requested_ = event;
  } else if (name == "push-started") {
    begin(event, time);
  } else if (name == "push-finished") {
    end_ = event;
    ended_ = true;
  } else if (name == "push-progress") {
    add_moment(event);
  } else if (!node.empty()) {
    add_of_node(node, name, event, time - began_);
  } else if (name == "error" || name == "other-lead" || name == "interface") {
    if (began_ > 0 && !ended_)
      trouble(time - began_, "",
              name == "error"        ? text(event, "text")
              : name == "other-lead" ? "another lead is heard: " + text(event, "other")
                                     : fmt::format("the interface {} is {}",
                                                   text(event, "interface"), text(event, "state")));
  }
}

// What came before the start of the push is about nodes that were there.
void PushStory::begin(const ParsedJson& event, double time) {
  start_ = event;
  began_ = time;
  stories_.clear();
  moments_.clear();
  happened_.clear();
  repairs_sent_ = polls_sent_ = bytes_ = 0;
}

void PushStory::add_of_node(const std::string& node, const std::string& name,
                            const ParsedJson& event, double seconds) {
  NodeStory& story = stories_[node];
  if (name == "progress" && number(event, "of_bytes") > 0) {
    story.bytes = number(event, "bytes");
    story.progress.push_back({seconds, 100 * story.bytes / number(event, "of_bytes")});
  } else if (name == "node-appeared" && began_ > 0) {
    story.appeared = seconds;
  } else if (name == "node-restarted") {
    ++story.restarts;
  } else if (name == "node-silent") {
    story.silent_since = seconds;
  } else if (name == "node-returned" && story.silent_since >= 0) {
    story.silent_seconds += seconds - story.silent_since;
    story.silent_since = -1;
  }
  if (began_ <= 0 || ended_) return;
  if (const std::string what = trouble_text(name); !what.empty()) trouble(seconds, node, what);
  if (name == "file" && number(event, "status") != 0)
    trouble(seconds, node, "failed: " + text(event, "text"));
}

void PushStory::trouble(double seconds, const std::string& node, const std::string& what) {
  happened_.push_back({seconds, node, what});
}

void PushStory::add_moment(const ParsedJson& event) {
  Moment now{.seconds = number(event, "seconds"), .stream_bits = number(event, "rate_bits")};
  double bytes = 0;
  for (const auto& [node, story] : stories_) bytes += story.bytes;
  const double before = moments_.empty() ? 0 : moments_.back().seconds;
  if (const double passed = now.seconds - before; passed > 0) {
    const auto rate = [&](double count, double earlier) {
      return std::max(0.0, count - earlier) / passed;
    };
    const double nodes = std::max<double>(1, static_cast<double>(stories_.size()));
    now.goodput_bits = rate(bytes, bytes_) * 8 / nodes;
    now.repairs = rate(number(event, "repairs_sent"), repairs_sent_);
    now.polls = rate(number(event, "polls_sent"), polls_sent_);
  }
  bytes_ = bytes;
  repairs_sent_ = number(event, "repairs_sent");
  polls_sent_ = number(event, "polls_sent");
  moments_.push_back(now);
}

const NodeStory& PushStory::of(const ParsedJson& node) const {
  static const NodeStory none;
  const auto found = stories_.find(text(node, "node"));
  return found != stories_.end() ? found->second : none;
}

std::vector<Trouble> PushStory::troubles() const {
  std::vector<Trouble> all;
  std::vector<std::vector<std::string>> nodes;  // of each of these
  std::map<std::string, size_t> latest;         // by what happened: its place
  for (const Happened& one : happened_) {
    const auto found = latest.find(one.what);
    const bool same =
        found != latest.end() && one.seconds - all[found->second].seconds < kTogetherSeconds;
    const size_t place = same ? found->second : all.size();
    if (!same) {
      all.push_back({one.seconds, one.what});
      nodes.emplace_back();
      latest[one.what] = place;
    }
    std::vector<std::string>& known = nodes[place];
    if (std::find(known.begin(), known.end(), one.node) == known.end()) known.push_back(one.node);
  }
  for (size_t i = 0; i < all.size(); ++i) {
    const std::string who =
        nodes[i].size() == 1 ? nodes[i][0] : cli::counted(nodes[i].size(), "node");
    if (!who.empty()) all[i].text = who + ": " + all[i].text;
  }
  return all;
}

std::string PushStory::why(const ParsedJson& node) const {
  const NodeStory& story = of(node);
  std::vector<std::string> reasons;
  if (text(node, "state") == "never heard") reasons.push_back("the lead never heard it");
  if (story.appeared > kLateSeconds)
    reasons.push_back(fmt::format("joined {:.1f} s after the start", story.appeared));
  if (story.restarts > 0) reasons.push_back("restarted " + cli::counted(story.restarts, "time"));
  if (story.silent_seconds > 0)
    reasons.push_back(fmt::format("silent for {:.1f} s", story.silent_seconds));
  if (story.silent_since >= 0)
    reasons.push_back(fmt::format("fell silent at {:.1f} s", story.silent_since));
  if (number(node, "repair_ratio") > kManyRepairs)
    reasons.push_back(
        fmt::format("lost {:.1f} % of its segments, on the wire or in its socket buffer",
                    100 * number(node, "repair_ratio")));
  for (const ParsedJson& failed : list(node, "failed"))
    if (const std::string reason = disk_reason(failed); !reason.empty()) {
      reasons.push_back(reason);
      break;
    }
  std::string all;
  for (const std::string& reason : reasons) all += (all.empty() ? "" : "; ") + reason;
  return all;
}

}  // namespace pkgdist::lead_program
