// Reads the text of a manifest: line by line, field by field, nothing optional but the expiry.
#include <fmt/core.h>

#include <charconv>
#include <utility>

#include "manifest.h"
#include "refusal.h"

namespace pkgdist::release {

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text) {}

  Manifest parse() {
    Manifest manifest;
    next_line();
    parse_head(manifest);
    next_line();
    literal("floor ");
    manifest.floor = number<uint64_t>();
    if (manifest.floor > manifest.version) refuse("a floor above the version");
    end_of_line();
    next_line();
    if (line_.starts_with("expires ")) parse_expiry(manifest);
    while (!line_.starts_with("end ")) {
      if (manifest.entries.size() == kMaxEntries)
        throw Refused(Reason::kTooLarge, fmt::format("more than {} entries", kMaxEntries));
      manifest.entries.push_back(parse_entry(manifest.leaf));
      next_line();
    }
    parse_end(manifest);
    if (!rest_.empty()) refuse("text behind the end");
    return manifest;
  }

 private:
  [[noreturn]] void refuse(const char* what) const {
    throw Refused(Reason::kFormat, fmt::format("line {} of the manifest: {}", line_number_, what));
  }

  void next_line() {
    ++line_number_;
    const size_t end = rest_.find('\n');
    if (end == std::string_view::npos) refuse("the text ends early");
    line_ = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
  }

  void literal(std::string_view text) {
    if (!line_.starts_with(text)) refuse("not what was expected here");
    line_.remove_prefix(text.size());
  }

  void end_of_line() const {
    if (!line_.empty()) refuse("more than was expected");
  }

  template <class Number>
  Number number(int base = 10) {
    Number value = 0;
    const auto [end, error] =
        std::from_chars(line_.data(), line_.data() + line_.size(), value, base);
    if (error != std::errc()) refuse("not a number, or one that is too large");
    const auto length = static_cast<size_t>(end - line_.data());
    if (base == 10 && length > 1 && line_[0] == '0') refuse("a number with a leading zero");
    line_.remove_prefix(length);
    return value;
  }

  // Up to the next space, or the end of the line.
  std::string_view field() {
    const std::string_view text = line_.substr(0, line_.find(' '));
    line_.remove_prefix(text.size());
    return text;
  }

  uint32_t mode() {
    const std::string_view text = field();
    constexpr size_t kDigits = 4;
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 8);
    if (text.size() != kDigits || error != std::errc() || end != text.data() + text.size())
      refuse("not a mode");
    return value;
  }

  std::string text() {
    auto plain = unescape(field());
    if (!plain) refuse("bytes that are not written as %XX, or needlessly so");
    return std::move(*plain);
  }

  void parse_head(Manifest& manifest) {
    literal("pkgdist-release 1 name=");
    manifest.name = field();
    check_name(manifest.name);
    literal(" version=");
    manifest.version = number<uint64_t>();
    if (manifest.version == 0) refuse("version 0");
    literal(" leaf=");
    manifest.leaf = number<uint32_t>();
    if (manifest.leaf < kSmallestLeaf || manifest.leaf > kLargestLeaf ||
        (manifest.leaf & (manifest.leaf - 1)) != 0)
      refuse("an unusable size of leaves");
    end_of_line();
  }

  void parse_expiry(Manifest& manifest) {
    literal("expires ");
    manifest.expires = std::string(line_);
    check_expiry(*manifest.expires);
    next_line();
  }

  Entry parse_entry(uint32_t leaf) {
    Entry entry;
    if (line_.starts_with("d ")) {
      entry.kind = Kind::kDirectory;
      literal("d ");
      entry.mode = mode();
      literal(" - - - ");
      entry.path = text();
    } else if (line_.starts_with("l ")) {
      parse_link(entry);
    } else {
      parse_file(entry, leaf);
    }
    end_of_line();
    return entry;
  }

  void parse_link(Entry& entry) {
    entry.kind = Kind::kLink;
    literal("l - ");
    const auto length = number<uint32_t>();
    literal(" - - ");
    entry.path = text();
    literal(" ");
    entry.target = text();
    if (entry.target.size() != length) refuse("a link target of another length");
  }

  void parse_file(Entry& entry, uint32_t leaf) {
    literal("f ");
    entry.mode = mode();
    literal(" ");
    entry.size = number<uint32_t>();
    literal(" ");
    entry.mtime = number<uint32_t>();
    literal(entry.size > leaf ? " list256:" : " sha256:");
    const auto digest = digest_from_hex(field());
    if (!digest) refuse("not a digest");
    entry.digest = *digest;
    literal(" ");
    entry.path = text();
  }

  void parse_end(const Manifest& manifest) {
    literal("end ");
    if (number<size_t>() != manifest.entries.size()) refuse("another number of entries");
    literal(" ");
    if (number<uint64_t>() != total_bytes(manifest)) refuse("another number of bytes");
    end_of_line();
  }

  std::string_view rest_;
  std::string_view line_;
  size_t line_number_ = 0;
};

}  // namespace

Manifest parse(std::string_view text, SetId set_id, Names names) {
  if (text.size() > kMaxManifestBytes)
    throw Refused(Reason::kTooLarge,
                  fmt::format("the manifest has more than {} bytes", kMaxManifestBytes));
  Manifest manifest = Parser(text).parse();
  check_entries(manifest, set_id, names);
  return manifest;
}

}  // namespace pkgdist::release
