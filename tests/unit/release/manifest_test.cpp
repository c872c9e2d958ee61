// The text of manifests: one text for one release, and what is refused.
#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  const size_t at = text.find(what);
  EXPECT_NE(std::string::npos, at) << what;
  return text.replace(at, what.size(), with);
}

std::optional<Reason> reason_for(const std::string& text) {
  return refusal([&] { (void)parse(text); });
}

Manifest with(const std::vector<Entry>& entries) {
  Manifest manifest = sample();
  manifest.entries = entries;
  return manifest;
}

std::optional<Reason> reason_for_path(const std::string& path) {
  return refusal([&] { check_entries(with({directory("a"), file(path, "x")}), SetId::kRefused); });
}

TEST(Manifest, is_the_text_that_is_documented) {
  EXPECT_EQ(
      "pkgdist-release 1 name=base version=7 leaf=65536\n"
      "floor 5\n"
      "d 0755 - - - a\n"
      "f 0644 5 1700000000 "
      "sha256:2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824 a/b\n"
      "l - 3 - - c a/b\n"
      "f 0644 0 1700000000 "
      "sha256:e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855 d%20e%25\n"
      "end 4 5\n",
      format(sample()));
}

TEST(Manifest, what_was_written_is_read) {
  Manifest manifest = sample();
  EXPECT_EQ(manifest, parse(format(manifest)));
  manifest.expires = "2027-11-21T00:00:00Z";
  EXPECT_EQ(manifest, parse(format(manifest)));
  manifest.entries.clear();
  EXPECT_EQ(manifest, parse(format(manifest)));
}

TEST(Manifest, every_byte_of_a_path_survives) {
  std::string name;
  for (int byte = 1; byte < 256; ++byte)
    if (byte != '/') name += static_cast<char>(byte);
  const Manifest manifest = with({file(name, "x")});
  EXPECT_EQ(manifest, parse(format(manifest)));
}

TEST(Manifest, no_shortening_of_the_text_is_a_manifest) {
  const std::string text = format(sample());
  for (size_t length = 0; length < text.size(); ++length)
    EXPECT_EQ(Reason::kFormat, reason_for(text.substr(0, length))) << length;
}

// A flipped bit may make another manifest, never two texts of one.
TEST(Manifest, a_text_with_a_flipped_bit_is_refused_or_another_manifest) {
  const std::string text = format(sample());
  for (size_t at = 0; at < text.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string flipped = text;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << bit));
      try {
        EXPECT_EQ(flipped, format(parse(flipped))) << at;
      } catch (const Refused&) {  // the other good outcome
      }
    }
  }
}

TEST(Manifest, other_ways_to_write_the_same_are_refused) {
  const std::string text = format(sample());
  for (const auto& [what, other] : std::vector<std::pair<std::string, std::string>>{
           {"version=7", "version=07"},
           {"floor 5", "floor  5"},
           {"floor 5", "floor +5"},
           {"0755", "755"},
           {"0755", "00755"},
           {"d%20e%25", "d%20%65%25"},
           {"d%20e%25", "d e%25"},
           {"%20", "%2"},
           {"sha256:2c", "sha256:2C"},
           {"sha256:2c", "list256:2c"},
           {"- 3 -", "- 4 -"},
           {"end 4 5", "end 4 6"},
           {"end 4 5", "end 3 5"},
           {"end 4 5\n", "end 4 5\n\n"},
           {"floor 5", "floor 8"},
           {"version=7", "version=0"},
           {"version=7", "version=18446744073709551616"},
           {"leaf=65536", "leaf=65535"},
           {"leaf=65536", "leaf=0"},
           {"name=base", "name=Base"},
           {"name=base", "name="},
           {"name=base", "name=../x"},
           {" 5 1700000000", " 4294967296 1700000000"},
           {"f 0644 5", "p 0644 5"},
           {"floor 5\n", "floor 5\nexpires tomorrow\n"},
           {"pkgdist-release 1", "pkgdist-release 2"}})
    EXPECT_EQ(Reason::kFormat, reason_for(replaced(text, what, other))) << other;
}

TEST(Manifest, hostile_paths_are_refused) {
  for (const std::string& path :
       {std::string(), std::string("/etc/passwd"), std::string(".."), std::string("a/.."),
        std::string("a/../b"), std::string("a/./b"), std::string("a//b"), std::string("a/"),
        std::string("."), std::string("a/b\0c", 5), "a/" + std::string(256, 'x'),
        std::string(".pkgdist"), std::string(".pkgdist/manifest"), std::string("b/c"),
        std::string("a")})
    EXPECT_EQ(Reason::kPath, reason_for_path(path)) << path;
  EXPECT_EQ(std::nullopt, reason_for_path("a/..."));
  EXPECT_EQ(std::nullopt, reason_for_path("a/" + std::string(255, 'x')));
  EXPECT_EQ(std::nullopt, reason_for_path("a/.pkgdist"));
}

TEST(Manifest, nothing_stands_below_a_link_or_a_file) {
  for (const Entry& parent : {link_to("a", "/etc"), file("a", "x")})
    EXPECT_EQ(Reason::kPath, refusal([&] {
                check_entries(with({parent, file("a/passwd", "x")}), SetId::kRefused);
              }));
}

TEST(Manifest, entries_out_of_order_or_there_twice_are_refused) {
  for (const auto& second : {"a", "b"})
    EXPECT_EQ(Reason::kPath, refusal([&] {
                check_entries(with({file("b", "x"), file(second, "x")}), SetId::kRefused);
              }))
        << second;
}

TEST(Manifest, set_user_id_is_refused_unless_it_is_allowed) {
  Manifest manifest = with({file("su", "x")});
  manifest.entries[0].mode = 04755;
  const std::string text = format(manifest);
  EXPECT_EQ(Reason::kMode, reason_for(text));
  EXPECT_EQ(manifest, parse(text, SetId::kAllowed));
}

TEST(Manifest, has_a_million_entries_at_most) {
  Manifest manifest = with({});
  for (size_t i = 0; i < kMaxEntries; ++i) {
    std::string name = std::to_string(i);
    name.insert(0, 7 - name.size(), '0');
    manifest.entries.push_back(directory(name));
  }
  const std::string text = format(manifest);
  EXPECT_EQ(kMaxEntries, parse(text).entries.size());
  EXPECT_EQ(Reason::kTooLarge,
            reason_for(replaced(text, "\nend 1000000 ", "\nd 0755 - - - x\nend 1000001 ")));
}

TEST(Manifest, has_64_mebibytes_at_most) {
  EXPECT_EQ(Reason::kTooLarge, reason_for(std::string(kMaxManifestBytes + 1, 'x')));
}

}  // namespace
