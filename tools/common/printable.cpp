#include "printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace pkgdist::cli {

namespace {

struct Character {
  uint32_t code = 0;
  size_t bytes = 0;  // 0: no UTF-8
};

// The first character of a text that is not empty.
Character first_of(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const size_t bytes = lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
  if (bytes == 0 || text.size() < bytes) return {};
  uint32_t code = lead & (0x7Fu >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    if (byte(i) >> 6 != 2) return {};
    code = code << 6 | (byte(i) & 63u);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kSmallest[bytes] || code > 0x10FFFF || surrogate) return {};
  return {code, bytes};
}

// Does something instead of being seen.
bool acts(uint32_t code) {
  if (code < 0x20 || (code >= 0x7F && code < 0xA0)) return true;  // control characters
  if (code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E)) return true;
  return code >= 0x2066 && code <= 0x2069;
}

// Nearly all text is this: printable ASCII.
size_t plain_prefix(std::string_view text) {
  const auto end = std::find_if(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte >= 0x7F;
  });
  return static_cast<size_t>(end - text.begin());
}

// Each character that acts, and each byte that is no UTF-8 (code 0xFFFD), becomes
// replacement(code).
template <class Replacement>
std::string replaced(std::string_view text, Replacement replacement) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const size_t plain = plain_prefix(text);
    result += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const Character c = first_of(text);
    if (c.bytes == 0)
      result += replacement(0xFFFDu);
    else if (acts(c.code))
      result += replacement(c.code);
    else
      result += text.substr(0, c.bytes);
    text.remove_prefix(c.bytes == 0 ? 1 : c.bytes);
  }
  return result;
}

}  // namespace

std::string printable(std::string_view text) {
  return replaced(text, [](uint32_t) { return "?"; });
}

std::string json_line(const nlohmann::ordered_json& object) {
  // The library escapes what JSON demands; that is not all that acts on a terminal.
  const std::string text = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return replaced(text, [](uint32_t code) {
    std::array<char, 8> escape;
    std::snprintf(escape.data(), escape.size(), "\\u%04x", code & 0xFFFFu);
    return std::string(escape.data());
  });
}

}  // namespace pkgdist::cli
