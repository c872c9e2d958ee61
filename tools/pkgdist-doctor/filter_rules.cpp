#include "filter_rules.h"

#include <arpa/inet.h>

#include <optional>
#include <vector>

namespace pkgdist::doctor {

namespace {

using Json = nlohmann::json;

enum class Match { kNo, kMaybe, kYes };

Match known(bool yes) {
  return yes ? Match::kYes : Match::kNo;
}
Match negated(Match match) {
  return match == Match::kMaybe ? match : known(match == Match::kNo);
}

std::optional<uint32_t> address_of(const Json& text) {
  in_addr address{};
  if (!text.is_string() || ::inet_pton(AF_INET, text.get<std::string>().c_str(), &address) != 1)
    return std::nullopt;
  return ntohl(address.s_addr);
}

// Chains that call each other deeper than this call themselves.
constexpr int kMaxDepth = 16;

// The way of one packet through the rules.
class Walk {
 public:
  Walk(const Json& objects, const FilteredPacket& packet) : objects_(objects), packet_(packet) {}

  FilterVerdict through(const Json& chain) {
    maybe_accepted_ = maybe_dropped_ = false;
    Outcome outcome = run(chain.at("family"), chain.at("table"), chain.at("name"), 0);
    if (outcome.end == End::kOpen && chain.value("policy", "accept") == "drop")
      outcome = {End::kDrop, "policy drop"};
    const bool dropped = outcome.end == End::kDrop;
    if (dropped ? maybe_accepted_ : maybe_dropped_) return {Fate::kUnknown, "", ""};
    if (!dropped) return {};
    return {Fate::kDropped,
            chain.at("family").get<std::string>() + " " + chain.at("table").get<std::string>() +
                " " + chain.at("name").get<std::string>(),
            outcome.reason};
  }

 private:
  enum class End { kOpen, kAccept, kDrop, kReturn };
  struct Outcome {
    End end = End::kOpen;
    std::string reason;
  };

  Outcome run(const Json& family, const Json& table, const Json& chain, int depth) {
    if (depth > kMaxDepth) {
      maybe_accepted_ = maybe_dropped_ = true;
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
      match = std::min(match, matches(rule, part["match"]));
      return {};
    }
    if (part.contains("vmap")) return apply_map(rule, part["vmap"], match, depth);
    for (const char* harmless : {"counter", "log", "comment", "mangle"})
      if (part.contains(harmless)) return {};
    if (const auto outcome = verdict(rule, part, match, depth)) return *outcome;
    match = std::min(match, Match::kMaybe);  // a limit, a quota, an extension
    return {};
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
    maybe_accepted_ |= end != End::kDrop;
    maybe_dropped_ |= end != End::kAccept;
    return {};
  }

  Outcome apply_map(const Json& rule, const Json& map, Match match, int depth) {
    const Json& data = map.at("data");
    if (!data.is_object() || !data.contains("set")) {
      maybe_accepted_ = maybe_dropped_ = true;  // a named map
      return {};
    }
    for (const Json& pair : data["set"]) {
      const Match here = std::min(match, compare(rule, map.at("key"), pair.at(0)));
      if (here == Match::kNo) continue;
      const auto outcome = verdict(rule, pair.at(1), here, depth);
      if (outcome && outcome->end != End::kOpen) return *outcome;
    }
    return {};
  }

  Match matches(const Json& rule, const Json& match) const {
    const std::string op = match.value("op", "==");
    const Match found = compare(rule, match.at("left"), match.at("right"));
    if (op == "==" || op == "in") return found;
    return op == "!=" ? negated(found) : Match::kMaybe;
  }

  Match compare(const Json& rule, const Json& left, const Json& right) const {
    if (right.is_string() && right.get<std::string>().starts_with("@"))
      return in_named_set(rule, left, right.get<std::string>().substr(1));
    const Json* list = right.is_array() ? &right : nullptr;
    if (right.is_object() && right.contains("set")) list = &right["set"];
    if (list == nullptr) return is(left, right);
    Match best = Match::kNo;
    for (const Json& one : *list) best = std::max(best, is(left, one));
    return best;
  }

  Match in_named_set(const Json& rule, const Json& left, const std::string& name) const {
    for (const Json& object : objects_) {
      if (!object.contains("set")) continue;
      const Json& set = object["set"];
      if (set.at("name") != name || set.at("table") != rule.at("table") ||
          set.at("family") != rule.at("family"))
        continue;
      Match best = Match::kNo;
      for (const Json& one : set.value("elem", Json::array())) best = std::max(best, is(left, one));
      return best;
    }
    return Match::kMaybe;
  }

  Match is(const Json& left, const Json& value) const {
    if (value.is_object() && value.contains("elem"))  // with a time-out or a counter
      return is(left, value["elem"].value("val", Json()));
    if (left.contains("payload")) return payload_is(left["payload"], value);
    if (left.contains("ct"))
      return left["ct"].value("key", "") == "state" ? known(value == "new") : Match::kMaybe;
    if (left.contains("meta")) return meta_is(left["meta"].value("key", ""), value);
    return Match::kMaybe;
  }

  Match meta_is(const std::string& key, const Json& value) const {
    if (key == "l4proto") return protocol_is(value);
    if (key == "iifname" || key == "iif")
      return !packet_.incoming ? Match::kMaybe : interface_is(value);
    if (key == "oifname" || key == "oif")
      return packet_.incoming ? Match::kMaybe : interface_is(value);
    if (key == "nfproto") return known(value == "ipv4" || value == 2);
    return Match::kMaybe;
  }

  Match interface_is(const Json& value) const {
    if (!value.is_string()) return Match::kMaybe;
    const std::string name = value.get<std::string>();
    if (name.ends_with("*"))
      return known(packet_.interface_name.starts_with(name.substr(0, name.size() - 1)));
    return known(packet_.interface_name == name);
  }

  Match protocol_is(const Json& value) const {
    if (value.is_number()) return known(value == (packet_.igmp ? IPPROTO_IGMP : IPPROTO_UDP));
    return known(value == (packet_.igmp ? "igmp" : "udp"));
  }

  Match payload_is(const Json& payload, const Json& value) const {
    const std::string protocol = payload.value("protocol", "");
    const std::string field = payload.value("field", "");
    if (protocol == "ip" && field == "protocol") return protocol_is(value);
    if (protocol == "ip" && field == "daddr") return address_is(packet_.destination, value);
    if (protocol == "ip" && field == "saddr") return address_is(packet_.source, value);
    if (protocol == "ip6" || protocol == "tcp" || protocol == "icmp" || protocol == "icmpv6")
      return Match::kNo;
    if ((protocol == "udp" || protocol == "th") && packet_.igmp) return Match::kNo;
    if ((protocol == "udp" || protocol == "th") && field == "dport")
      return number_is(packet_.port, value);
    return Match::kMaybe;
  }

  static Match number_is(uint32_t number, const Json& value) {
    if (value.is_number()) return known(value == number);
    if (value.is_object() && value.contains("range") && value["range"].at(0).is_number())
      return known(number >= value["range"].at(0).get<uint32_t>() &&
                   number <= value["range"].at(1).get<uint32_t>());
    return Match::kMaybe;
  }

  static Match address_is(uint32_t address, const Json& value) {
    if (address == 0) return Match::kMaybe;
    if (const auto wanted = address_of(value)) return known(*wanted == address);
    if (!value.is_object()) return Match::kMaybe;
    if (value.contains("prefix")) {
      const auto base = address_of(value["prefix"].at("addr"));
      const auto bits = value["prefix"].at("len").get<uint32_t>();
      if (!base || bits > 32) return Match::kMaybe;
      const uint32_t mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
      return known((address & mask) == (*base & mask));
    }
    if (!value.contains("range")) return Match::kMaybe;
    const auto first = address_of(value["range"].at(0)), last = address_of(value["range"].at(1));
    return first && last ? known(address >= *first && address <= *last) : Match::kMaybe;
  }

  const Json& objects_;
  const FilteredPacket& packet_;
  bool maybe_accepted_ = false, maybe_dropped_ = false;
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
      if (here.fate == Fate::kUnknown) worst = here;
    }
  } catch (const Json::exception&) {
    return {Fate::kUnknown, "", ""};  // a form that this program does not know
  }
  return worst;
}

}  // namespace pkgdist::doctor
