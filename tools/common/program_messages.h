// What the messages between pkgdist-lead and pkgdist-node have in common: one line,
// "pkgdist-KIND 1 " and a JSON object. For the files that define such messages; other code need not
// know JSON.
#pragma once

#include <fmt/core.h>

#include <cstdint>
#include <exception>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace pkgdist::cli::program_messages {

using Json = nlohmann::ordered_json;

inline std::string line(const char* kind, const Json& object) {
  return fmt::format("pkgdist-{} 1 {}\n", kind,
                     object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// What `read` makes of the object in a message of this kind; nothing when it is another message or
// `read` throws.
template <class Read>
auto parse(std::span<const uint8_t> bytes, const char* kind, Read&& read)
    -> std::optional<decltype(read(Json()))> {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string start = fmt::format("pkgdist-{} 1 ", kind);
  if (!text.starts_with(start) || !text.ends_with('\n')) return std::nullopt;
  const Json object = Json::parse(text.substr(start.size()), nullptr, false);
  if (!object.is_object()) return std::nullopt;
  try {
    return read(object);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// A text of another host, which may be of any length.
inline std::string short_text(const Json& value) {
  constexpr size_t kMaxText = 256;
  return value.get<std::string>().substr(0, kMaxText);
}

// Throws for what is not a whole number of this range.
template <class Number>
Number number(const Json& value) {
  if (!value.is_number_unsigned() || value.get<uint64_t>() > std::numeric_limits<Number>::max())
    throw std::out_of_range("not such a number");
  return static_cast<Number>(value.get<uint64_t>());
}

}  // namespace pkgdist::cli::program_messages
