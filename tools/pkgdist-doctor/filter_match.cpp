#include "filter_match.h"

#include <arpa/inet.h>

#include <nlohmann/json.hpp>
#include <optional>

namespace pkgdist::doctor {

namespace {

using Json = nlohmann::json;

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

Match number_is(uint32_t number, const Json& value) {
  if (value.is_number()) return known(value == number);
  if (value.is_object() && value.contains("range") && value["range"].at(0).is_number())
    return known(number >= value["range"].at(0).get<uint32_t>() &&
                 number <= value["range"].at(1).get<uint32_t>());
  return Match::kMaybe;
}

Match address_is(uint32_t address, const Json& value) {
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

}  // namespace

Match FilterMatch::matches(const Json& rule, const Json& match) const {
  const std::string op = match.value("op", "==");
  const Match found = compare(rule, match.at("left"), match.at("right"));
  if (op == "==" || op == "in") return found;
  return op == "!=" ? negated(found) : Match::kMaybe;
}

Match FilterMatch::compare(const Json& rule, const Json& left, const Json& right) const {
  if (right.is_string() && right.get<std::string>().starts_with("@"))
    return in_named_set(rule, left, right.get<std::string>().substr(1));
  const Json* list = right.is_array() ? &right : nullptr;
  if (right.is_object() && right.contains("set")) list = &right["set"];
  if (list == nullptr) return is(left, right);
  Match best = Match::kNo;
  for (const Json& one : *list) best = std::max(best, is(left, one));
  return best;
}

Match FilterMatch::in_named_set(const Json& rule, const Json& left, const std::string& name) const {
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

Match FilterMatch::is(const Json& left, const Json& value) const {
  if (value.is_object() && value.contains("elem"))  // with a time-out or a counter
    return is(left, value["elem"].value("val", Json()));
  if (left.contains("payload")) return payload_is(left["payload"], value);
  if (left.contains("ct"))
    return left["ct"].value("key", "") == "state" ? known(value == "new") : Match::kMaybe;
  if (left.contains("meta")) return meta_is(left["meta"].value("key", ""), value);
  return Match::kMaybe;
}

Match FilterMatch::meta_is(const std::string& key, const Json& value) const {
  if (key == "l4proto") return protocol_is(value);
  if (key == "iifname" || key == "iif")
    return !packet_.incoming ? Match::kMaybe : interface_is(value);
  if (key == "oifname" || key == "oif")
    return packet_.incoming ? Match::kMaybe : interface_is(value);
  if (key == "nfproto") return known(value == "ipv4" || value == 2);
  return Match::kMaybe;
}

Match FilterMatch::interface_is(const Json& value) const {
  if (!value.is_string()) return Match::kMaybe;
  const std::string name = value.get<std::string>();
  if (name.ends_with("*"))
    return known(packet_.interface_name.starts_with(name.substr(0, name.size() - 1)));
  return known(packet_.interface_name == name);
}

Match FilterMatch::protocol_is(const Json& value) const {
  if (value.is_number()) return known(value == (packet_.igmp ? IPPROTO_IGMP : IPPROTO_UDP));
  return known(value == (packet_.igmp ? "igmp" : "udp"));
}

Match FilterMatch::payload_is(const Json& payload, const Json& value) const {
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

}  // namespace pkgdist::doctor
