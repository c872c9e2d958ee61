// Whether a packet is what an expression of a rule asks for.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "filter_rules.h"

namespace pkgdist::doctor {

enum class Match { kNo, kMaybe, kYes };

class FilterMatch {
 public:
  // `objects`: the rule set, for named sets. Both stay with the caller.
  FilterMatch(const nlohmann::json& objects, const FilteredPacket& packet)
      : objects_(objects), packet_(packet) {}

  // A "match" of the rule.
  Match matches(const nlohmann::json& rule, const nlohmann::json& match) const;
  // Whether the left side is the right one, or is in it.
  Match compare(const nlohmann::json& rule, const nlohmann::json& left,
                const nlohmann::json& right) const;

 private:
  using Json = nlohmann::json;

  Match in_named_set(const Json& rule, const Json& left, const std::string& name) const;
  Match is(const Json& left, const Json& value) const;
  Match meta_is(const std::string& key, const Json& value) const;
  Match interface_is(const Json& value) const;
  Match protocol_is(const Json& value) const;
  Match payload_is(const Json& payload, const Json& value) const;

  const Json& objects_;
  const FilteredPacket& packet_;
};

}  // namespace pkgdist::doctor
