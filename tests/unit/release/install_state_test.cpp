// What a node remembers: written and read again, and never read from damaged text.
#include "install_state.h"

#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

InstallState full_state() {
  InstallState state;
  state.installed = {7, sha256(bytes_of("seven"))};
  state.installed_keys = {"0202020202020202"};
  state.trial = {8, sha256(bytes_of("eight"))};
  state.floors = {{"0101010101010101", 5}, {"0202020202020202", UINT64_MAX}};
  state.bad = {sha256(bytes_of("six")), sha256(bytes_of("five"))};
  state.allowed = 5;
  return state;
}

TEST(InstallState, what_was_written_is_read) {
  EXPECT_EQ(full_state(), parse_state(format(full_state())));
  EXPECT_EQ(InstallState(), parse_state(format(InstallState())));
  InstallState of_unknown_key = full_state();
  of_unknown_key.installed_keys.clear();
  EXPECT_EQ(of_unknown_key, parse_state(format(of_unknown_key)));
  InstallState of_three_keys = full_state();
  of_three_keys.installed_keys = {"0303030303030303", "0101010101010101", "0202020202020202"};
  EXPECT_EQ(of_three_keys, parse_state(format(of_three_keys)));
}

// Versions that know of one key for a release write this, and read it.
TEST(InstallState, with_one_key_has_the_text_that_earlier_versions_have) {
  const std::string digest(64, 'a');
  const std::string text = "pkgdist-state 1\ninstalled 7 " + digest +
                           " 0202020202020202\nfloor 0202020202020202 5\nend\n";
  const InstallState state = parse_state(text);
  EXPECT_EQ(std::vector<std::string>{"0202020202020202"}, state.installed_keys);
  EXPECT_EQ(text, format(state));
  const std::string without = "pkgdist-state 1\ninstalled 7 " + digest + "\nend\n";
  EXPECT_TRUE(parse_state(without).installed_keys.empty());
  EXPECT_EQ(without, format(parse_state(without)));
}

TEST(InstallState, no_shortening_is_taken_for_a_state) {
  const std::string text = format(full_state());
  for (size_t length = 0; length + 1 < text.size(); ++length)
    EXPECT_EQ(Reason::kFormat, refusal([&] { (void)parse_state(text.substr(0, length)); }))
        << length;
}

TEST(InstallState, a_directory_is_named_by_version_and_manifest) {
  EXPECT_EQ("7-", directory_name(*full_state().installed).substr(0, 2));
  EXPECT_EQ(18u, directory_name(*full_state().installed).size());
}

TEST(InstallState, the_name_of_a_directory_gives_the_version_back) {
  const std::string name = directory_name(*full_state().installed);
  const auto parsed = parse_directory_name(name);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(7u, parsed->version);
  EXPECT_EQ(name, directory_name(*parsed));
  for (const std::string& other :
       {std::string(), std::string("7"), std::string("7-"), name + "0", "0" + name, "-" + name,
        "7/" + name.substr(2), name.substr(0, name.size() - 1) + "g"})
    EXPECT_FALSE(parse_directory_name(other)) << other;
}

}  // namespace
