// Fields of events, of which nothing is taken for granted: 0 or empty when there is no such thing.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

namespace pkgdist::lead_program {

inline double number(const nlohmann::json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

inline uint64_t count(const nlohmann::json& object, const char* name) {
  constexpr double kMost = 9e18;  // fits into 64 bits
  return static_cast<uint64_t>(std::clamp(number(object, name), 0.0, kMost));
}

inline std::string text(const nlohmann::json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

inline const nlohmann::json& list(const nlohmann::json& object, const char* name) {
  static const nlohmann::json empty = nlohmann::json::array();
  const auto found = object.find(name);
  return found != object.end() && found->is_array() ? *found : empty;
}

}  // namespace pkgdist::lead_program
