// What the keys of a release protect against older ones, and what a threshold that is raised, or a
// key that is taken away, changes about it.
#include <map>

#include "several_keys.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

TEST_F(SeveralKeys, have_a_floor_each_and_the_highest_refuses) {
  InstallState state;
  state.floors = {{kOne, 3}, {kTwo, 6}, {kThree, 2}};
  state_.write("base.state", format(state));
  start();
  try {
    bring_manifest(*make(5, {&signer_, &two_, &three_}));
    ADD_FAILURE() << "the floor of the second key";
  } catch (const Refused& refused) {
    EXPECT_EQ(Reason::kFloor, refused.reason());
    EXPECT_EQ("version 5 is below 6, the floor of key " + kTwo, std::string(refused.what()));
  }
  EXPECT_EQ(Reason::kFloor, refused(*make(2, {&signer_, &three_})));
  EXPECT_EQ(std::nullopt, refused(*make(5, {&signer_, &three_})));
}

TEST_F(SeveralKeys, all_get_the_floor_of_what_they_signed) {
  start();
  install(*make(7, first_two_, 5));
  install(*make(8, last_two_, 6));
  EXPECT_EQ((std::map<std::string, uint64_t>{{kOne, 5}, {kTwo, 6}, {kThree, 6}}),
            node_->state().floors);
  EXPECT_EQ((std::vector<std::string>{kTwo, kThree}), node_->state().installed_keys);
}

TEST_F(SeveralKeys, all_get_a_lower_floor_with_a_version_that_was_allowed) {
  start();
  install(*make(7, first_two_, 7));
  node_->allow(5);
  install(*make(5, first_two_, 4));
  EXPECT_EQ((std::map<std::string, uint64_t>{{kOne, 5}, {kTwo, 5}}), node_->state().floors);
}

TEST_F(SeveralKeys, that_are_needed_from_now_on_leave_the_protection_of_what_is_installed) {
  threshold_ = 1;
  start();
  install(five_);
  install(six_);
  threshold_ = 2;
  start();
  EXPECT_EQ(6u, node_->state().installed->version);
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(Reason::kNotNewer, refused(*make(5, last_two_)));
  EXPECT_EQ(Reason::kThreshold, refused(seven_));
  EXPECT_EQ(Reason::kTree, refusal([&] { node_->roll_back(); }))
      << "the release before has one signature";
  EXPECT_TRUE(current_is(six_));
  // Its one key counts as long as it is trusted.
  keys_ = {two_.public_key(), three_.public_key()};
  start();
  EXPECT_EQ(std::nullopt, refused(*make(5, last_two_)));
}

TEST_F(SeveralKeys, that_are_needed_from_now_on_are_needed_for_what_was_staged_and_ready_too) {
  for (const bool whole : {false, true}) {
    threshold_ = 1;
    start();
    bring_manifest(seven_);
    if (whole) bring_files(seven_);
    threshold_ = 2;
    start();
    EXPECT_EQ(std::nullopt, node_->candidate());
    EXPECT_TRUE(std::filesystem::is_empty(place_ / ".pkgdist/staging"));
    EXPECT_TRUE(std::filesystem::is_empty(place_ / ".pkgdist/releases"));
  }
}

// The staged one is not looked at in a restart that finds another one ready.
TEST_F(SeveralKeys, that_come_later_are_taken_for_what_was_staged_with_too_few) {
  threshold_ = 1;
  start();
  const auto seven = make(7, first_two_), eight = make(8, {&signer_});
  bring_manifest(*seven);
  bring_files(*seven);
  bring_manifest(*eight);
  threshold_ = 2;
  start();
  ASSERT_EQ(seven->release(), node_->candidate());
  sign(*eight, first_two_);
  bring(kManifestPath, eight->text);
  bring(kSignaturePath, eight->signature);
  bring(kLeavesPath, eight->leaves);
  bring(signature_paths()[1], eight->further.at(signature_paths()[1]));
  node_->check(eight->release());
  EXPECT_EQ(eight->release(), node_->candidate());
  bring_files(*eight);
  EXPECT_TRUE(node_->ready());
}

TEST_F(SeveralKeys, that_were_stolen_keep_nothing_out_when_too_few_are_left) {
  start();
  install(*make(6, first_two_, 6));
  install(*make(UINT64_MAX, first_two_, UINT64_MAX));
  EXPECT_EQ(Reason::kNotNewer, refused(*make(8, last_two_)));
  // One was taken away, and it takes two of those that signed.
  const ReleaseSigner four(4);
  keys_ = {two_.public_key(), three_.public_key(), four.public_key()};
  start();
  EXPECT_EQ(Reason::kFloor, refused(*make(8, last_two_)));
  const auto eight = make(8, {&three_, &four});
  install(*eight);
  EXPECT_TRUE(current_is(*eight));
}

TEST_F(SeveralKeys, that_are_left_keep_lower_versions_out_while_they_are_enough) {
  start();
  install(*make(7, {&signer_, &two_, &three_}));
  keys_ = {two_.public_key(), three_.public_key()};
  start();
  EXPECT_EQ(Reason::kNotNewer, refused(*make(6, last_two_)));
  EXPECT_EQ(std::nullopt, refused(*make(8, last_two_)));
}

TEST_F(SeveralKeys, that_are_too_few_for_any_release_let_none_in) {
  keys_ = {signer_.public_key()};
  start();
  EXPECT_EQ(Reason::kThreshold, refused(*make(7, first_two_)));
}

TEST_F(SeveralKeys, that_were_taken_away_switch_nothing_more) {
  const auto seven = make(7, first_two_);
  start();
  bring_manifest(*seven);
  bring_files(*seven);
  ASSERT_TRUE(node_->ready());
  keys_ = {two_.public_key(), three_.public_key()};
  start();
  EXPECT_FALSE(node_->ready());
  EXPECT_EQ(Reason::kNoRelease, refusal([&] { node_->activate(); }));
}

// What an earlier version of the program has written.
TEST_F(SeveralKeys, find_a_state_with_one_key) {
  threshold_ = 1;
  start();
  install(six_);
  state_.write("base.state", "pkgdist-state 1\ninstalled 6 " + to_hex(six_.release().manifest) +
                                 " " + kOne + "\nfloor " + kOne + " 5\nend\n");
  threshold_ = 2;
  start();
  EXPECT_EQ(std::vector<std::string>{kOne}, node_->signers());
  EXPECT_EQ(Reason::kNotNewer, refused(*make(5, last_two_)));
}

}  // namespace
