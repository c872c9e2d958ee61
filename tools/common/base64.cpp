#include "base64.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace pkgdist::cli {

namespace {

constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

[[noreturn]] void refuse() {
  throw std::runtime_error("not base64");
}

uint32_t digit_value(char digit) {
  const size_t at = kBase64Digits.find(digit);
  if (at == std::string_view::npos) refuse();
  return static_cast<uint32_t>(at);
}

}  // namespace

std::string encode_base64(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t some = std::min<size_t>(3, bytes.size() - i);
    uint32_t group = 0;
    for (size_t k = 0; k < 3; ++k) group = group << 8 | (k < some ? bytes[i + k] : 0u);
    for (size_t k = 0; k < 4; ++k)
      out.push_back(k <= some ? kBase64Digits[group >> (18 - 6 * k) & 63] : '=');
  }
  return out;
}

std::vector<uint8_t> decode_base64(const std::string& text) {
  if (text.size() % 4 != 0) refuse();
  std::vector<uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const size_t padding = !last || text[i + 3] != '=' ? 0 : text[i + 2] == '=' ? 2 : 1;
    uint32_t group = 0;
    for (size_t k = 0; k < 4; ++k)
      group = group << 6 | (k < 4 - padding ? digit_value(text[i + k]) : 0);
    for (size_t k = 0; k < 3 - padding; ++k)
      bytes.push_back(static_cast<uint8_t>(group >> (16 - 8 * k)));
  }
  return bytes;
}

std::string encode_base64(std::string_view text) {
  return encode_base64(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::string decode_base64_text(const std::string& text) {
  const std::vector<uint8_t> bytes = decode_base64(text);
  return {bytes.begin(), bytes.end()};
}

}  // namespace pkgdist::cli
