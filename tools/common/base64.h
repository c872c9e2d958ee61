// Bytes and names as base64, for JSON: neither need be valid text.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdist::cli {

std::string encode_base64(std::span<const uint8_t> bytes);
std::string encode_base64(std::string_view text);
// Throw std::runtime_error when the text is no base64.
std::vector<uint8_t> decode_base64(const std::string& text);
std::string decode_base64_text(const std::string& text);

}  // namespace pkgdist::cli
