// Installing releases: what is refused, the switch and the way back, and what a crash leaves
// behind.
#include <fcntl.h>
#include <unistd.h>

#include <set>

#include "installer_fixture.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

TEST_F(Install, a_release_is_installed_and_the_next_one_brings_only_what_is_new) {
  start();
  install(six_);
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(3u, files_sent_);
  files_sent_ = 0;
  install(seven_);
  EXPECT_TRUE(current_is(seven_));
  EXPECT_EQ(2u, files_sent_) << "the large file was here";
  EXPECT_EQ(7u, node_->state().installed->version);
  EXPECT_EQ(6u, node_->state().floors.at("0101010101010101"));
  EXPECT_EQ(seven_.text, place_.read("current/.pkgdist/manifest"));
  EXPECT_TRUE(node_->verify().empty());
}

TEST_F(Install, nothing_is_switched_before_it_is_activated) {
  start();
  install(six_);
  bring_manifest(seven_);
  EXPECT_EQ(Reason::kNoRelease, refusal([&] { node_->activate(); }));
  bring_files(seven_);
  EXPECT_TRUE(node_->ready());
  EXPECT_TRUE(current_is(six_));
}

TEST_F(Install, a_release_that_fails_goes_back_and_is_not_taken_again) {
  start();
  install(six_);
  bring_manifest(seven_);
  bring_files(seven_);
  node_->activate();
  EXPECT_TRUE(current_is(seven_));
  node_->fail();
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(Reason::kKnownBad, refused(seven_));
  start();
  EXPECT_FALSE(node_->ready());
  EXPECT_EQ(Reason::kKnownBad, refused(seven_));
}

TEST_F(Install, a_first_release_that_fails_leaves_nothing_current) {
  start();
  bring_manifest(six_);
  bring_files(six_);
  node_->activate();
  node_->fail();
  EXPECT_EQ("", node_->link("current"));
}

TEST_F(Install, a_restart_during_the_trial_goes_back) {
  start();
  install(six_);
  bring_manifest(seven_);
  bring_files(seven_);
  node_->activate();
  start();
  EXPECT_TRUE(current_is(six_));
  EXPECT_FALSE(node_->state().trial);
}

TEST_F(Install, the_previous_release_comes_back_by_command) {
  start();
  install(six_);
  install(seven_);
  EXPECT_EQ("", node_->roll_back());
  EXPECT_EQ(6u, node_->state().installed->version);
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(Reason::kKnownBad, refused(seven_));
}

// --- The way back to a tree that somebody changed ---

class WayBack : public Install {
 protected:
  WayBack() {
    start();
    install(six_);
    install(seven_);
  }
  // Why it is not gone back to, when it is not.
  std::string problem() {
    try {
      node_->roll_back();
      return "";
    } catch (const Refused& refused) {
      EXPECT_EQ(Reason::kTree, refused.reason());
      return refused.what();
    }
  }
  bool current_names(const Built& built) const {
    return node_->current() == built.release() &&
           node_->link("current").ends_with(directory_name(built.release()));
  }

  const std::string named_ = "the previous release, version 6, is not as it was signed: ";
  const std::string forced_ = "; 'release rollback --force' goes back to it as it is";
};

TEST_F(WayBack, a_tree_that_somebody_changed_is_not_switched_to) {
  place_.write("previous/a/one", "x");
  place_.write("previous/more", "");
  const std::string different = named_ + "content differs: a/one, not in the manifest: more";
  const InstallState before = node_->state();
  EXPECT_EQ(different + forced_, problem());
  EXPECT_TRUE(current_is(seven_));
  EXPECT_EQ(before, node_->state());
  EXPECT_EQ(different, node_->roll_back(Installer::RollBack::kForced));
  EXPECT_TRUE(current_names(six_));
  start();
  EXPECT_TRUE(current_names(six_));
}

TEST_F(WayBack, of_much_that_differs_the_first_is_named_and_the_rest_counted) {
  for (const char* name : {"1", "2", "3", "4", "5", "6", "7"})
    place_.write(std::string("previous/") + name, "");
  EXPECT_TRUE(problem().ends_with("not in the manifest: 5 and 2 more" + forced_)) << problem();
}

TEST_F(WayBack, a_change_that_keeps_size_and_time_is_found_after_a_restart) {
  const std::string path = place_ / "previous/a/one";
  const auto time = std::filesystem::last_write_time(path);
  place_.write("previous/a/one", "x");
  std::filesystem::last_write_time(path, time);
  start();
  EXPECT_EQ(named_ + "content differs: a/one" + forced_, problem());
}

TEST_F(WayBack, a_manifest_that_somebody_changed_holds_up_no_forced_way_back_and_no_later_release) {
  for (const std::string& text : {seven_.text, std::string("x")}) {
    place_.write("previous/.pkgdist/manifest", text);
    EXPECT_TRUE(problem().starts_with(named_));
  }
  EXPECT_NE("", node_->roll_back(Installer::RollBack::kForced));
  start();
  EXPECT_EQ(6u, node_->current()->version);
  EXPECT_EQ(Reason::kNotNewer, refused(five_));
  const Built eight(8, {{"b", "8"}}, signer_);
  install(eight);
  EXPECT_TRUE(current_is(eight));
}

TEST_F(WayBack, a_release_of_a_key_that_was_taken_away_takes_force) {
  keys_ = {ReleaseSigner(2).public_key()};
  start();
  EXPECT_NE(std::string::npos, problem().find("not trusted here"));
  EXPECT_NE("", node_->roll_back(Installer::RollBack::kForced));
  EXPECT_TRUE(current_names(six_));
}

TEST_F(WayBack, a_link_to_something_else_is_no_release_even_by_force) {
  std::filesystem::remove(place_ / "previous");
  std::filesystem::create_directories(place_ / "elsewhere");
  std::filesystem::create_directory_symlink("elsewhere", place_ / "previous");
  EXPECT_EQ(Reason::kNoRelease, refusal([&] { node_->roll_back(Installer::RollBack::kForced); }));
  EXPECT_TRUE(current_is(seven_));
}

TEST_F(WayBack, the_automatic_one_is_held_up_by_no_comparison) {
  const Built eight(8, {{"b", "8"}}, signer_);
  bring_manifest(eight);
  bring_files(eight);
  node_->activate();
  place_.write("previous/a/one", "x");
  node_->fail();
  EXPECT_TRUE(current_names(seven_));
}

TEST_F(Install, only_the_current_and_the_previous_release_are_kept) {
  start();
  install(six_);
  install(seven_);
  install(Built(8, {{"b", "8"}}, signer_));
  size_t count = 0;
  for (const auto& item : std::filesystem::directory_iterator(place_ / ".pkgdist/releases"))
    count += item.is_directory() ? 1 : 0;
  EXPECT_EQ(2u, count);
}

// --- What is refused, with nothing switched ---

TEST_F(Install, every_refusal_has_its_own_reason) {
  start();
  install(six_);
  EXPECT_EQ(Reason::kName, refused(Built(7, {{"a", "x"}}, signer_, 0, "other")));
  EXPECT_EQ(Reason::kNotNewer, refused(Built(5, {{"a", "x"}}, signer_)));
  EXPECT_EQ(Reason::kOtherManifest, refused(Built(6, {{"a", "x"}}, signer_)));
  EXPECT_EQ(Reason::kUnknownKey, refused(Built(7, {{"a", "x"}}, ReleaseSigner(2))));
  EXPECT_EQ(Reason::kBadSignature, refused(Built(7, {{"a", "x"}}, ReleaseSigner(1))));
  Built damaged(7, {{"big", kSame}}, signer_);
  damaged.leaves[40] ^= 1;
  EXPECT_EQ(Reason::kLeaves, refused(damaged));
  Built labelled(7, {{"a", "x"}}, signer_);
  labelled.signature = signer_.sign(labelled.text, "pkgdist-release 1 name=base version=9");
  EXPECT_EQ(Reason::kRelabelled, refused(labelled));
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(std::nullopt, node_->candidate());
}

TEST_F(Install, the_floor_holds_when_the_place_was_emptied_for_its_key_alone) {
  start();
  install(six_);
  // Somebody takes the installed version out of the state; the floor stays.
  InstallState state = node_->state();
  state.installed.reset();
  state_.write("base.state", format(state));
  const ReleaseSigner other(2);
  keys_.push_back(other.public_key());
  start();
  EXPECT_EQ(Reason::kFloor, refused(Built(4, {{"a", "x"}}, signer_)));
  EXPECT_EQ(std::nullopt, refused(Built(4, {{"a", "x"}}, other)));
}

// Who had the key could sign the highest version there is.
TEST_F(Install, a_version_of_a_key_that_was_taken_away_blocks_no_other) {
  const ReleaseSigner other(2);
  keys_.push_back(other.public_key());
  const Built eight(8, {{"a", "8"}}, other, 8);
  start();
  install(six_);
  install(Built(UINT64_MAX, {{"a", "x"}}, signer_, UINT64_MAX));
  EXPECT_EQ(Reason::kNotNewer, refused(eight));
  keys_ = {other.public_key()};
  start();
  install(eight);
  EXPECT_TRUE(current_is(eight));
  EXPECT_EQ(Reason::kNotNewer, refused(Built(7, {{"a", "7"}}, other)));
  EXPECT_EQ(Reason::kUnknownKey, refused(Built(9, {{"a", "9"}}, signer_)));
}

TEST_F(Install, the_floor_of_a_key_holds_when_another_was_taken_away) {
  const ReleaseSigner other(2);
  keys_.push_back(other.public_key());
  start();
  install(Built(5, {{"a", "5"}}, other, 5));
  install(six_);
  keys_ = {other.public_key()};
  start();
  EXPECT_EQ(Reason::kFloor, refused(Built(4, {{"a", "4"}}, other)));
  EXPECT_EQ(std::nullopt, refused(Built(5, {{"a", "five"}}, other)));
}

TEST_F(Install, what_a_trusted_key_signed_is_checked_like_anything_else) {
  start();
  install(six_);
  const auto reason_for = [&](const std::string& what, const std::string& with) {
    Built built(7, {{"file", "x"}}, signer_);
    built.text.replace(built.text.find(what), what.size(), with);
    built.signature = signer_.sign(built.text);
    return refused(built);
  };
  EXPECT_EQ(std::nullopt, reason_for("", ""));
  start();
  EXPECT_EQ(Reason::kPath, reason_for(" file\n", " ../file\n"));
  EXPECT_EQ(Reason::kPath, reason_for(" file\n", " /etc/passwd\n"));
  EXPECT_EQ(Reason::kPath, reason_for(" file\n", " .pkgdist/staging\n"));
  EXPECT_EQ(Reason::kMode, reason_for("f 0644", "f 4755"));
  EXPECT_EQ(Reason::kFormat, reason_for("version=7", "version=07"));
  EXPECT_EQ(Reason::kFormat, reason_for("end 2 1", "end 3 1"));
  EXPECT_TRUE(current_is(six_));
}

TEST(Reasons, have_a_name_each) {
  std::set<std::string> names;
  for (int reason = 0; reason <= static_cast<int>(Reason::kNoSpace); ++reason)
    names.insert(reason_name(static_cast<Reason>(reason)));
  EXPECT_EQ(static_cast<size_t>(Reason::kNoSpace) + 1, names.size());
  EXPECT_FALSE(names.contains("unknown"));
}

TEST_F(Install, an_expired_release_is_refused_when_the_time_counts) {
  Built built(7, {{"a", "x"}}, signer_);
  let_expire(built, "2027-01-01T00:00:00Z");
  now_ = "2027-01-01T00:00:00Z";
  start();
  EXPECT_EQ(Reason::kExpired, refused(built));
  now_ = "2026-12-31T23:59:59Z";
  start();
  EXPECT_EQ(std::nullopt, refused(built));
}

TEST_F(Install, a_release_that_expires_while_it_is_ready_is_not_switched_to) {
  Built built(7, {{"a", "x"}}, signer_);
  let_expire(built, "2027-01-01T00:00:00Z");
  now_ = "2026-12-31T23:59:59Z";
  start();
  bring_manifest(built);
  bring_files(built);
  now_ = "2027-01-01T00:00:00Z";
  EXPECT_EQ(Reason::kExpired, refusal([&] { node_->activate(); }));
  EXPECT_EQ("", node_->link("current"));
  now_.reset();
}

TEST_F(Install, a_damaged_state_is_not_taken_for_none) {
  start();
  install(six_);
  state_.write("base.state", "pkgdist-state 1\n");
  EXPECT_EQ(Reason::kFormat, refusal([&] { start(); }));
}

TEST_F(Install, the_gate_lets_through_what_the_manifest_names_and_nothing_else) {
  start();
  EXPECT_EQ(EAGAIN, node_->ask("a/one", std::nullopt));
  EXPECT_EQ(Installer::kAccept, node_->ask(kManifestPath, std::nullopt));
  bring_manifest(six_);
  EXPECT_EQ(Installer::kAccept, node_->ask("a/one", std::nullopt));
  EXPECT_EQ(Installer::kAccept, node_->ask("a/one", Installer::Announced{1, 0644, false}));
  EXPECT_EQ(EPERM, node_->ask("a/one", Installer::Announced{2, 0644, false}));
  EXPECT_EQ(EPERM, node_->ask("a/one", Installer::Announced{1, 04755, false}));
  EXPECT_EQ(EPERM, node_->ask("a/one", Installer::Announced{1, 0644, true}));
  EXPECT_EQ(EPERM, node_->ask("stranger", std::nullopt));
  EXPECT_EQ(EPERM, node_->ask(".pkgdist/staging/x", std::nullopt));
  EXPECT_EQ(Installer::kPresent, node_->ask("link", std::nullopt));
  EXPECT_EQ(Installer::kPresent, node_->ask("a", std::nullopt));
  EXPECT_EQ(EPERM, node_->ask(kManifestPath, Installer::Announced{1, 0644, true}));
  EXPECT_EQ(EFBIG, node_->ask(kManifestPath, Installer::Announced{UINT32_MAX, 0644, false}));
}

TEST_F(Install, a_manifest_that_comes_anew_finds_none_in_its_place) {
  start();
  bring(kManifestPath, "an earlier one");
  bring("a/one", "1");
  node_->make_way(kManifestPath);
  node_->make_way("a/one");
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/.pkgdist/manifest"));
  EXPECT_TRUE(std::filesystem::exists(place_ / ".pkgdist/incoming/a/one"));
}

TEST_F(Install, a_file_with_another_content_is_refused_and_asked_for_again) {
  start();
  bring_manifest(six_);
  bring("a/one", "0");
  EXPECT_EQ("'a/one' has another content than signed", arrive("a/one"));
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/a/one"));
  EXPECT_EQ(Installer::kAccept, node_->ask("a/one", std::nullopt));
}

TEST_F(Install, a_link_directory_or_fifo_in_place_of_a_file_is_not_taken) {
  start();
  bring_manifest(six_);
  const std::string path = place_ / ".pkgdist/incoming/gone";
  place_.write("secret", "x");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_EQ("'gone' is no file", arrive("gone"));
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  EXPECT_EQ("'gone' is no file", arrive("gone"));
  ASSERT_EQ(0, symlink((place_ / "secret").c_str(), path.c_str()));
  EXPECT_THROW(arrive("gone"), std::runtime_error);
}

TEST_F(Install, one_wrong_file_among_many_leaves_the_others) {
  start();
  bring_manifest(six_);
  bring("a/one", "1");
  bring("gone", "y");
  bring("same", kSame);
  const auto refusals = node_->arrived({"a/one", "gone", "stranger", "same"});
  EXPECT_EQ((Installer::Refusals{{"gone", "'gone' has another content than signed"}}), refusals);
  EXPECT_EQ(std::vector<uint8_t>{0b010}, node_->missing_files());
  bring("gone", "x");
  EXPECT_TRUE(node_->arrived({"gone"}).empty());
  EXPECT_TRUE(node_->ready());
}

TEST_F(Install, another_manifest_than_the_one_that_was_ordered_is_refused) {
  start();
  bring(kManifestPath, six_.text);
  bring(kSignaturePath, six_.signature);
  bring(kLeavesPath, six_.leaves);
  EXPECT_EQ(Reason::kNotOrdered, refusal([&] { node_->check(seven_.release()); }));
  EXPECT_EQ(std::nullopt, node_->candidate());
  EXPECT_EQ(Reason::kNoRelease, refusal([&] { node_->check(six_.release()); })) << "it was taken";
}

TEST_F(Install, an_order_for_what_is_there_needs_no_manifest) {
  start();
  bring_manifest(six_);
  node_->check(six_.release());
  EXPECT_EQ(3u, node_->missing());
  bring_files(six_);
  node_->check(six_.release());
  EXPECT_TRUE(node_->ready());
  node_->activate();
  node_->confirm();
  node_->check(six_.release());
  EXPECT_EQ(std::nullopt, node_->candidate());
  EXPECT_EQ(six_.release(), node_->current());
}

TEST_F(Install, the_installed_release_is_taken_again_when_the_place_was_emptied) {
  start();
  install(six_);
  std::filesystem::remove_all(place_ / ".pkgdist");
  std::filesystem::remove(place_ / "current");
  start();
  EXPECT_EQ(std::nullopt, node_->current());
  install(six_);
  EXPECT_TRUE(current_is(six_));
}

TEST_F(Install, the_files_that_are_missing_have_bits_in_the_order_of_the_manifest) {
  start();
  bring_manifest(six_);  // a, a/one, gone, link, same
  EXPECT_EQ(std::vector<uint8_t>{0b111}, node_->missing_files());
  bring("gone", "x");
  arrive("gone");
  EXPECT_EQ(std::vector<uint8_t>{0b101}, node_->missing_files());
}

TEST_F(Install, files_that_came_unnoticed_are_collected_and_wrong_ones_are_named) {
  start();
  bring_manifest(six_);
  bring("a/one", "0");
  bring("gone", "x");
  const auto refused = node_->collect();
  ASSERT_EQ(1u, refused.size());
  EXPECT_TRUE(refused.contains("a/one"));
  EXPECT_EQ(2u, node_->missing());
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/a/one"));
  arrive("stranger");
  arrive("same");
  EXPECT_EQ(2u, node_->missing()) << "what did not come is passed over";
}

TEST_F(Install, what_came_before_a_restart_is_taken_and_other_leftovers_go) {
  start();
  bring_manifest(six_);
  bring("gone", "x");
  bring("a/one.tmp", "");
  bring("stranger", "s");
  bring(kManifestPath, "half of a");
  start();
  EXPECT_EQ(2u, node_->missing());
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/a"));
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/stranger"));
  EXPECT_TRUE(std::filesystem::exists(place_ / ".pkgdist/incoming/.pkgdist/manifest"));
}

TEST_F(Install, of_a_partial_file_the_leaves_that_are_right_are_told) {
  start();
  bring_manifest(six_);
  std::string partial = kSame;
  partial[kLeafBytes + 5] = 'x';
  bring("same.tmp", partial);
  bring("gone.tmp", "x");  // not larger than a leaf
  bring("other/same.tmp", kSame);
  start();
  const std::string incoming = ".pkgdist/incoming/";
  EXPECT_TRUE(std::filesystem::exists(place_ / (incoming + "same.tmp")));
  EXPECT_FALSE(std::filesystem::exists(place_ / (incoming + "gone.tmp")));
  EXPECT_FALSE(std::filesystem::exists(place_ / (incoming + "other")));
  EXPECT_TRUE(node_->take_good_parts("gone").empty());
  const auto parts = node_->take_good_parts("same");
  ASSERT_EQ(2u, parts.size());
  EXPECT_EQ(0u, parts[0].first);
  EXPECT_EQ(kLeafBytes, parts[0].size);
  EXPECT_EQ(2u * kLeafBytes, parts[1].first);
  EXPECT_EQ(kLeafBytes, parts[1].size);
}

TEST_F(Install, parts_that_came_in_this_process_are_found_too) {
  start();
  bring_manifest(six_);
  bring("same.tmp", kSame.substr(0, kLeafBytes));
  EXPECT_EQ(1u, node_->take_good_parts("same").size());
  EXPECT_TRUE(node_->take_good_parts("gone").empty());
  // The next lead orders the same release, and more has come by then.
  bring("same.tmp", kSame.substr(0, 2 * kLeafBytes));
  node_->check(InstalledRelease{6, sha256(bytes_of(six_.text))});
  const auto parts = node_->take_good_parts("same");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ(2u * kLeafBytes, parts[0].size);
}

TEST_F(Install, what_was_found_in_a_partial_file_that_has_gone_is_forgotten) {
  start();
  bring_manifest(six_);
  bring("same.tmp", kSame);
  start();
  std::filesystem::remove(place_ / ".pkgdist/incoming/same.tmp");
  EXPECT_EQ(Installer::kAccept,
            node_->ask("same", Installer::Announced{3 * kLeafBytes, 0644, false}));
  node_->make_way("same");
  bring("same.tmp", std::string(3 * kLeafBytes, '\0'));  // as a transfer makes it
  EXPECT_TRUE(node_->take_good_parts("same").empty());
}

TEST_F(Install, leaves_that_touch_are_one_part_and_half_a_leaf_is_none) {
  start();
  bring_manifest(six_);
  bring("same.tmp", kSame.substr(0, 2 * kLeafBytes + 7));
  start();
  const auto parts = node_->take_good_parts("same");
  ASSERT_EQ(1u, parts.size());
  EXPECT_EQ(0u, parts[0].first);
  EXPECT_EQ(2u * kLeafBytes, parts[0].size);
}

TEST_F(Install, no_part_is_told_of_what_no_release_that_is_coming_lacks) {
  start();
  install(six_);
  bring("same.tmp", kSame);
  start();
  EXPECT_TRUE(node_->take_good_parts("same").empty());
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/same.tmp"));
}

TEST_F(Install, a_path_that_cannot_be_delivered_is_refused_at_once) {
  longest_path_ = 5;
  start();
  EXPECT_EQ(std::nullopt, refused(six_));
  EXPECT_EQ(Reason::kPath, refused(seven_));  // new/file
}

TEST_F(Install, hard_links_share_what_has_the_same_mode_and_time) {
  hard_links_ = true;
  start();
  install(six_);
  bring_manifest(seven_);
  bring_files(seven_);
  struct stat old_file {
  }, new_file{};
  const std::string next = place_ / (".pkgdist/releases/" + directory_name(seven_.release()));
  ASSERT_EQ(0, stat((place_ / "current/same").c_str(), &old_file));
  ASSERT_EQ(0, stat((next + "/same").c_str(), &new_file));
  EXPECT_EQ(old_file.st_ino, new_file.st_ino);
  node_->activate();
  node_->confirm();
  EXPECT_TRUE(current_is(seven_));
}

class LinkedReleases : public Install {
 protected:
  void SetUp() override {
    hard_links_ = true;
    start();
    install(release(7));
  }
  Built release(uint64_t version) const {
    return {version,
            {{"a", large_}, {"again", large_}, {"small", std::to_string(version)}},
            signer_,
            0};
  }
  const std::string large_ = std::string(size_t{1} << 20, 'l');
};

TEST_F(LinkedReleases, are_not_read_again_where_this_process_has_hashed_them) {
  for (uint64_t version = 8; version < 12; ++version) {  // also once older releases are removed
    const Built next = release(version);
    const uint64_t before = bytes_read();
    bring_manifest(next);
    bring_files(next);
    node_->activate();
    node_->confirm();
    EXPECT_LT(bytes_read() - before, large_.size()) << version;
    EXPECT_TRUE(current_is(next));
  }
}

TEST_F(LinkedReleases, are_read_where_something_was_touched) {
  std::string other = large_;
  other[17] ^= 1;
  struct stat status {};
  ASSERT_EQ(0, stat((place_ / "current/a").c_str(), &status));
  place_.write("current/a", other);
  const timespec times[] = {status.st_atim, status.st_mtim};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (place_ / "current/a").c_str(), times, 0));
  const Built next = release(8);
  bring_manifest(next);
  EXPECT_EQ(node_->missing_files(), std::vector<uint8_t>{0b111});
  bring_files(next);
  node_->activate();
  node_->confirm();
  EXPECT_TRUE(current_is(next));
}

TEST_F(LinkedReleases, are_read_by_the_next_process) {
  start();
  const uint64_t before = bytes_read();
  bring_manifest(release(8));
  EXPECT_GE(bytes_read() - before, 2 * large_.size());
}

// --- By the owner's command ---

TEST_F(Install, an_allowed_version_is_taken_once_though_it_is_older_and_below_the_floor) {
  start();
  install(seven_);
  EXPECT_EQ(Reason::kNotNewer, refused(five_));
  node_->allow(5);
  start();
  install(five_);
  EXPECT_TRUE(current_is(five_));
  EXPECT_EQ(5u, node_->state().floors.at("0101010101010101")) << "or nothing could follow it";
  EXPECT_EQ(std::nullopt, node_->state().allowed);
  install(seven_);
  EXPECT_EQ(Reason::kNotNewer, refused(five_));
}

TEST_F(Install, an_allowed_version_that_fails_is_not_allowed_any_more) {
  start();
  install(six_);
  bring_manifest(seven_);
  bring_files(seven_);
  node_->activate();
  node_->fail();
  node_->allow(7);
  bring_manifest(seven_);
  bring_files(seven_);
  node_->activate();
  node_->fail();
  EXPECT_TRUE(current_is(six_));
  EXPECT_EQ(Reason::kKnownBad, refused(seven_));
}

TEST_F(Install, a_rollback_that_is_killed_at_any_moment_is_done_or_not) {
  for (size_t stop_at = 0;; ++stop_at) {
    std::filesystem::remove_all(place_ / "");
    std::filesystem::create_directories(place_.path());
    std::filesystem::remove(state_ / "base.state");
    start();
    install(six_);
    install(seven_);
    bool stopped = false;
    try {
      start(stop_at);
      node_->roll_back();
    } catch (const Stopped&) {
      stopped = true;
    }
    start();
    const uint64_t version = node_->state().installed->version;
    ASSERT_TRUE(version == 6 ? current_is(six_) : current_is(seven_)) << stop_at;
    ASSERT_EQ(node_->state().installed, node_->current()) << stop_at;
    if (!stopped) break;
  }
  EXPECT_TRUE(current_is(six_));
}

// --- Crashes ---

// Kills the node before every one of its operations, one after the other.
TEST_F(Install, after_a_kill_at_any_moment_current_is_wholly_the_old_or_the_new_tree) {
  size_t moments = 0;
  for (size_t stop_at = 0;; ++stop_at) {
    std::filesystem::remove_all(place_ / "");
    std::filesystem::create_directories(place_.path());
    std::filesystem::remove(state_ / "base.state");
    start();
    install(six_);
    bool stopped = false;
    try {
      start(stop_at);
      install(seven_);
    } catch (const Stopped&) {
      stopped = true;
    }
    ASSERT_TRUE(current_is(six_) || current_is(seven_)) << "killed before " << stop_at;
    start();
    ASSERT_TRUE(current_is(six_) || current_is(seven_)) << "restarted after " << stop_at;
    ASSERT_EQ(current_is(seven_), node_->state().installed->version == 7u) << stop_at;
    if (!stopped) break;
    ++moments;
    // Whatever was interrupted, the next release can be installed.
    const Built eight(8, {{"same", kSame}, {"z", "8"}}, signer_, 6);
    install(eight);
    ASSERT_TRUE(current_is(eight)) << stop_at;
  }
  EXPECT_GT(moments, 50u);
  RecordProperty("moments", static_cast<int>(moments));
}

TEST_F(Install, an_interrupted_fetch_goes_on_with_what_is_missing) {
  start();
  bring_manifest(six_);
  bring("same", kSame);
  arrive("same");
  start();
  EXPECT_EQ(2u, node_->missing());
  bring_files(six_);
  EXPECT_EQ(2u, files_sent_);
  EXPECT_TRUE(node_->ready());
}

TEST_F(Install, a_failing_disk_leaves_the_current_release_and_is_reported) {
  start();
  install(six_);
  for (size_t fail_at = 1;; ++fail_at) {
    size_t count = 0;
    node_ = std::make_unique<Installer>(options(), Disk([&](const char* operation) {
                                          if (++count == fail_at)
                                            throw std::runtime_error(operation);
                                        }));
    try {
      node_->recover();
      node_->resume();
      bring_manifest(seven_);
      bring_files(seven_);
    } catch (const std::runtime_error&) {
    }
    ASSERT_TRUE(current_is(six_)) << fail_at;
    if (count < fail_at) break;  // nothing failed
  }
  EXPECT_TRUE(node_->ready());
  EXPECT_TRUE(current_is(six_));
}

}  // namespace
