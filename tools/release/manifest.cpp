#include "manifest.h"

#include <fmt/core.h>

#include "refusal.h"

namespace pkgdist::release {

namespace {

bool needs_escape(unsigned char byte) {
  return byte <= 0x20 || byte == 0x7F || byte == '%';
}

int upper_hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

std::string format_entry(const Entry& entry, uint32_t leaf) {
  switch (entry.kind) {
    case Kind::kDirectory:
      return fmt::format("d {:04o} - - - {}\n", entry.mode, escape(entry.path));
    case Kind::kLink:
      return fmt::format("l - {} - - {} {}\n", entry.target.size(), escape(entry.path),
                         escape(entry.target));
    case Kind::kFile:
      break;
  }
  return fmt::format("f {:04o} {} {} {}:{} {}\n", entry.mode, entry.size, entry.mtime,
                     entry.size > leaf ? "list256" : "sha256", to_hex(entry.digest),
                     escape(entry.path));
}

}  // namespace

std::string escape(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (needs_escape(byte))
      escaped += fmt::format("%{:02X}", byte);
    else
      escaped += c;
  }
  return escaped;
}

std::optional<std::string> unescape(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    const bool escaped = byte == '%';
    if (escaped) {
      const int high = text.size() - i < 3 ? -1 : upper_hex_value(text[i + 1]);
      const int low = text.size() - i < 3 ? -1 : upper_hex_value(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      byte = static_cast<unsigned char>(high * 16 + low);
      i += 2;
    }
    if (needs_escape(byte) != escaped) return std::nullopt;
    plain += static_cast<char>(byte);
  }
  return plain;
}

uint32_t leaf_count(uint32_t size, uint32_t leaf) {
  return size <= leaf ? 0 : (size - 1) / leaf + 1;
}

uint64_t total_bytes(const Manifest& manifest) {
  uint64_t bytes = 0;
  for (const Entry& entry : manifest.entries) bytes += entry.size;
  return bytes;
}

std::string head_line(const Manifest& manifest) {
  return fmt::format("pkgdist-release 1 name={} version={} leaf={}", manifest.name,
                     manifest.version, manifest.leaf);
}

std::string_view first_line(std::string_view text) {
  return text.substr(0, text.find('\n'));
}

std::string format(const Manifest& manifest, Names names) {
  check_name(manifest.name);
  if (manifest.expires) check_expiry(*manifest.expires);
  check_entries(manifest, SetId::kAllowed, names);
  std::string text = head_line(manifest) + "\n";
  text += fmt::format("floor {}\n", manifest.floor);
  if (manifest.expires) text += fmt::format("expires {}\n", *manifest.expires);
  for (const Entry& entry : manifest.entries) text += format_entry(entry, manifest.leaf);
  text += fmt::format("end {} {}\n", manifest.entries.size(), total_bytes(manifest));
  if (text.size() > kMaxManifestBytes)
    throw Refused(Reason::kTooLarge,
                  fmt::format("the manifest has {} bytes, at most {} are allowed", text.size(),
                              kMaxManifestBytes));
  return text;
}

}  // namespace pkgdist::release
