#include "filter_rules.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <vector>

#include "filter_match.h"

namespace pkgdist::doctor {

namespace {

using Json = nlohmann::json;

// Chains that call each other deeper than this call themselves.
constexpr int kMaxDepth = 16;

// Targets of iptables after which the next rule comes.
const std::set<std::string> kHarmlessTargets{"AUDIT",  "CHECKSUM", "CONNMARK", "CT",
                                             "DSCP",   "LOG",      "MARK",     "NFLOG",
                                             "TCPMSS", "TOS",      "TRACE",    "TTL"};

// The way of one packet through the rules.
class Walk {
 public:
  Walk(const Json& objects, const FilteredPacket& packet)
      : objects_(objects), conditions_(objects, packet) {}

  FilterVerdict through(const Json& chain) {
    maybe_accepted_ = maybe_dropped_ = false;
    open_.clear();
    Outcome outcome = run(chain.at("family"), chain.at("table"), chain.at("name"), 0);
    if (outcome.end == End::kOpen && chain.value("policy", "accept") == "drop")
      outcome = {End::kDrop, "policy drop"};
    const bool dropped = outcome.end == End::kDrop;
    const std::string name = chain.at("family").get<std::string>() + " " +
                             chain.at("table").get<std::string>() + " " +
                             chain.at("name").get<std::string>();
    if (dropped ? maybe_accepted_ : maybe_dropped_) return {Fate::kUnknown, name, "", open_};
    if (!dropped) return {};
    return {Fate::kDropped, name, outcome.reason};
  }

 private:
  enum class End { kOpen, kAccept, kDrop, kReturn };
  struct Outcome {
    End end = End::kOpen;
    std::string reason;
  };

  Outcome run(const Json& family, const Json& table, const Json& chain, int depth) {
    if (depth > kMaxDepth) {
      leave_open("chains that call themselves");
      return {};
    }
    for (const Json& object : objects_) {
      if (!object.contains("rule")) continue;
      const Json& rule = object["rule"];
      if (rule.at("family") != family || rule.at("table") != table || rule.at("chain") != chain)
        continue;
      const Outcome outcome = apply(rule, depth);
      if (outcome.end == End::kReturn) return {};
      if (outcome.end != End::kOpen) return outcome;
    }
    return {};
  }

  Outcome apply(const Json& rule, int depth) {
    Match match = Match::kYes;
    for (const Json& part : rule.at("expr")) {
      const Outcome outcome = apply_part(rule, part, match, depth);
      if (match == Match::kNo) return {};
      if (outcome.end != End::kOpen) return outcome;
    }
    return {};
  }

  // One expression or statement of a rule; `match` is what those before it came to.
  Outcome apply_part(const Json& rule, const Json& part, Match& match, int depth) {
    if (part.contains("match")) {
      match = std::min(match, conditions_.matches(rule, part["match"]));
      return {};
    }
    if (part.contains("vmap")) return apply_map(rule, part["vmap"], match, depth);
    for (const char* harmless : {"counter", "log", "comment", "mangle"})
      if (part.contains(harmless)) return {};
    if (const auto outcome = verdict(rule, part, match, depth)) return *outcome;
    if (part.contains("xt")) return apply_extension(rule, part["xt"], match);
    if (part.contains("queue")) leave_open(name_of(rule, "queue"));
    match = std::min(match, Match::kMaybe);  // a limit, a quota
    return {};
  }

  // Of iptables. Older versions of nft do not say which one it is.
  Outcome apply_extension(const Json& rule, const Json& extension, Match& match) {
    const std::string name = text_of(extension, "name"), type = text_of(extension, "type");
    if (type == "target" && name == "REJECT") return ended(End::kDrop, match, rule);
    const bool may_be_target = type.empty() && !decides(rule);
    if (may_be_target || (type == "target" && !kHarmlessTargets.contains(name)))
      leave_open(name_of(rule, name.empty() ? "xt" : "xt " + name));
    if (type != "target") match = std::min(match, Match::kMaybe);
    return {};
  }

  static std::string text_of(const Json& object, const char* key) {
    return object.is_object() ? object.value(key, "") : std::string();
  }

  static bool decides(const Json& rule) {
    for (const Json& part : rule.at("expr"))
      for (const char* verdict : {"accept", "drop", "reject", "return", "jump", "goto", "vmap"})
        if (part.contains(verdict)) return true;
    return false;
  }

  static std::string name_of(const Json& rule, const std::string& part) {
    return "rule " + std::to_string(rule.value("handle", 0)) + " (" + part + ")";
  }

  void leave_open(const std::string& what) {
    maybe_accepted_ = maybe_dropped_ = true;
    if (std::find(open_.begin(), open_.end(), what) == open_.end()) open_.push_back(what);
  }

  // What of the rule may be so or not: "xt conntrack", "ip saddr", "limit".
  std::string open_part(const Json& rule) const {
    for (const Json& part : rule.at("expr")) {
      if (part.contains("match")) {
        if (conditions_.matches(rule, part["match"]) == Match::kMaybe)
          return name_of_left(part["match"].at("left"));
      } else if (part.contains("xt")) {
        const std::string name = text_of(part["xt"], "name");
        return name.empty() ? "xt" : "xt " + name;
      } else if (part.contains("vmap")) {
        return "vmap of " + name_of_left(part["vmap"].at("key"));
      } else if (!part.contains("counter") && !part.contains("log") && !part.empty()) {
        return part.begin().key();
      }
    }
    return "its conditions";
  }

  static std::string name_of_left(const Json& left) {
    if (!left.is_object() || left.empty()) return "its conditions";
    const std::string kind = left.begin().key();
    const Json& of = left.begin().value();
    if (kind == "payload") return text_of(of, "protocol") + " " + text_of(of, "field");
    const std::string key = text_of(of, "key");
    return key.empty() ? kind : kind + " " + key;
  }

  // A verdict statement, also one that may not be reached; nothing when it is another statement.
  std::optional<Outcome> verdict(const Json& rule, const Json& part, Match match, int depth) {
    if (part.contains("accept")) return ended(End::kAccept, match, rule);
    if (part.contains("drop") || part.contains("reject")) return ended(End::kDrop, match, rule);
    if (part.contains("return")) return ended(End::kReturn, match, rule);
    for (const char* call : {"jump", "goto"}) {
      if (!part.contains(call)) continue;
      const Outcome outcome =
          run(rule.at("family"), rule.at("table"), part[call].at("target"), depth + 1);
      if (outcome.end == End::kOpen) return outcome;
      return match == Match::kYes ? outcome : ended(outcome.end, match, rule);
    }
    return std::nullopt;
  }

  Outcome ended(End end, Match match, const Json& rule) {
    if (match == Match::kYes) return {end, "rule " + std::to_string(rule.value("handle", 0))};
    // After an uncertain "return" either may come.
    const bool accepted = maybe_accepted_ || end != End::kDrop;
    const bool dropped = maybe_dropped_ || end != End::kAccept;
    leave_open(name_of(rule, open_part(rule)));
    maybe_accepted_ = accepted;
    maybe_dropped_ = dropped;
    return {};
  }

  Outcome apply_map(const Json& rule, const Json& map, Match match, int depth) {
    const Json& data = map.at("data");
    if (!data.is_object() || !data.contains("set")) {
      leave_open(name_of(rule, "a named map"));
      return {};
    }
    for (const Json& pair : data["set"]) {
      const Match here = std::min(match, conditions_.compare(rule, map.at("key"), pair.at(0)));
      if (here == Match::kNo) continue;
      const auto outcome = verdict(rule, pair.at(1), here, depth);
      if (outcome && outcome->end != End::kOpen) return *outcome;
    }
    return {};
  }

  const Json& objects_;
  const FilterMatch conditions_;
  bool maybe_accepted_ = false, maybe_dropped_ = false;
  std::vector<std::string> open_;  // the rules that make it so
};

bool concerns(const Json& chain, bool incoming) {
  const std::string hook = chain.value("hook", "");
  const std::string family = chain.value("family", "");
  if (family != "ip" && family != "inet") return false;
  return incoming ? hook == "prerouting" || hook == "input"
                  : hook == "output" || hook == "postrouting";
}

}  // namespace

FilterRules::FilterRules(const std::string& json) {
  const Json parsed = Json::parse(json, nullptr, false);
  if (!parsed.is_object() || !parsed.contains("nftables")) return;
  objects_ = parsed["nftables"];
  readable_ = true;
}

FilterVerdict FilterRules::verdict(const FilteredPacket& packet) const {
  FilterVerdict worst;
  try {
    for (const Json& object : objects_) {
      if (!object.contains("chain") || !concerns(object["chain"], packet.incoming)) continue;
      const FilterVerdict here = Walk(objects_, packet).through(object["chain"]);
      if (here.fate == Fate::kDropped) return here;
      if (here.fate == Fate::kUnknown && worst.fate == Fate::kAccepted) worst = here;
    }
  } catch (const Json::exception&) {
    return {Fate::kUnknown, "", "", {"rules of a form that is not known here"}};
  }
  return worst;
}

}  // namespace pkgdist::doctor
