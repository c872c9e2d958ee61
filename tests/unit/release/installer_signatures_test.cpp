// Releases that more than one key has signed: how many are needed, what is kept of them, and what
// each of them protects.
#include <fcntl.h>

#include <map>

#include "file_io.h"
#include "installer_fixture.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

const std::string kOne = "0101010101010101", kTwo = "0202020202020202", kThree = "0303030303030303";

// A node that wants two of three keys, unless a test says otherwise.
class SeveralKeys : public Install {
 protected:
  SeveralKeys() {
    keys_ = {signer_.public_key(), two_.public_key(), three_.public_key()};
    threshold_ = 2;
  }
  using Signers = std::vector<const ReleaseSigner*>;
  // The first of them in the first file, and so on.
  static void sign(Built& built, const Signers& signers) {
    built.further.clear();
    built.signature = signers.front()->sign(built.text);
    for (size_t i = 1; i < signers.size(); ++i)
      built.further[signature_paths().at(i)] = signers[i]->sign(built.text);
  }
  std::unique_ptr<Built> make(uint64_t version, const Signers& signers, uint64_t floor = 0) const {
    auto built = std::make_unique<Built>(
        version, Files{{"a/one", std::to_string(version)}, {"same", kSame}}, signer_, floor);
    sign(*built, signers);
    return built;
  }
  // The names of the signature files in a directory of the place, without what they begin with.
  std::vector<std::string> kept_in(const std::string& directory) const {
    std::vector<std::string> endings;
    for (size_t i = 0; i < signature_paths().size(); ++i)
      if (std::filesystem::exists(place_ / (directory + "/" + signature_paths()[i])))
        endings.push_back(i == 0 ? "" : std::to_string(i + 1));
    return endings;
  }
  // The keys whose signatures are kept with the current release.
  std::vector<std::string> signers_of_current() const {
    const std::string directory = place_ / node_->link("current");
    const Fd at(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string text = place_.read("current/.pkgdist/manifest");
    return signing_keys(
        verify_signatures(text, read_signatures(at.get()), keys_, 2, first_line(text)));
  }

  const ReleaseSigner two_{2}, three_{3}, stranger_{9};
  const Signers first_two_{&signer_, &two_}, last_two_{&two_, &three_};
};

TEST_F(SeveralKeys, that_are_enough_install_a_release_and_are_remembered) {
  const auto seven = make(7, first_two_);
  start();
  install(*seven);
  EXPECT_TRUE(current_is(*seven));
  EXPECT_EQ((std::vector<std::string>{kOne, kTwo}), node_->state().installed_keys);
  EXPECT_EQ((std::vector<std::string>{kOne, kTwo}), node_->signers());
  EXPECT_EQ((std::vector<std::string>{"", "2"}), kept_in("current"));
  struct stat status {};
  ASSERT_EQ(0, stat((place_ / "current/.pkgdist/manifest.minisig.2").c_str(), &status));
  EXPECT_EQ(0644u, status.st_mode & kPermissions);
  start();
  EXPECT_EQ((std::vector<std::string>{kOne, kTwo}), node_->signers());
  EXPECT_EQ("current " + seven->text, "current " + place_.read("current/.pkgdist/manifest"));
}

TEST_F(SeveralKeys, that_are_too_few_install_nothing) {
  start();
  for (const Signers& signers : {Signers{&signer_}, Signers{&signer_, &signer_},
                                 Signers{&signer_, &stranger_, &signer_}, Signers{&stranger_}}) {
    EXPECT_EQ(Reason::kThreshold, refused(*make(7, signers)));
    EXPECT_EQ(std::nullopt, node_->candidate());
  }
  EXPECT_EQ("", node_->link("current"));
}

TEST_F(SeveralKeys, are_all_kept_and_nothing_that_does_not_hold) {
  auto seven = make(7, {&stranger_, &two_, &signer_, &two_});
  seven->further[signature_paths()[4]] = std::string(kMaxSignatureFileBytes + 1, 'x');
  seven->further[signature_paths()[5]] = three_.sign(seven->text, "another comment");
  seven->further[signature_paths()[8]] = three_.sign(seven->text);
  start();
  bring_manifest(*seven);
  const std::vector<std::string> good{"2", "3", "9"};
  EXPECT_EQ(good, kept_in(".pkgdist/staging/" + directory_name(seven->release())));
  start();
  bring_files(*seven);
  EXPECT_TRUE(node_->ready());
  start();
  node_->activate();
  node_->confirm();
  EXPECT_EQ(good, kept_in("current"));
  EXPECT_EQ((std::vector<std::string>{kTwo, kOne, kThree}), node_->state().installed_keys);
}

TEST_F(SeveralKeys, of_an_earlier_attempt_are_not_kept_with_those_of_the_next) {
  auto seven = make(7, {&signer_, &two_, &three_});
  start();
  bring_manifest(*seven);
  // A process that does not go on with it before the manifest comes again.
  node_ = std::make_unique<Installer>(options(), Disk());
  node_->recover();
  sign(*seven, first_two_);
  bring_manifest(*seven);
  EXPECT_EQ((std::vector<std::string>{"", "2"}),
            kept_in(".pkgdist/staging/" + directory_name(seven->release())));
}

TEST_F(SeveralKeys, that_wait_for_their_check_outlive_a_restart) {
  const auto seven = make(7, first_two_);
  start();
  bring(kManifestPath, seven->text);
  bring(kSignaturePath, seven->signature);
  bring(kLeavesPath, seven->leaves);
  bring(signature_paths()[1], seven->further.at(signature_paths()[1]));
  bring(".pkgdist/manifest.minisig.10", "a stranger");
  start();
  EXPECT_FALSE(std::filesystem::exists(place_ / ".pkgdist/incoming/.pkgdist/manifest.minisig.10"));
  node_->check();
  bring_files(*seven);
  EXPECT_TRUE(node_->ready());
}

TEST_F(SeveralKeys, are_let_through_by_their_names_alone) {
  start();
  const auto with_size = [&](const std::string& path, uint32_t size, bool link = false) {
    return node_->ask(path, Installer::Announced{size, 0644, link});
  };
  for (const std::string& path : signature_paths()) {
    EXPECT_EQ(Installer::kAccept, node_->ask(path, std::nullopt)) << path;
    EXPECT_EQ(Installer::kAccept, with_size(path, kMaxSignatureFileBytes)) << path;
    EXPECT_EQ(EFBIG, with_size(path, kMaxSignatureFileBytes + 1)) << path;
    EXPECT_EQ(EPERM, with_size(path, 300, true)) << path;
  }
  bring_manifest(*make(7, first_two_));
  for (const char* other : {".0", ".1", ".10", ".02", ".2.tmp", ".22", ".2/x", "2"})
    EXPECT_EQ(EPERM, node_->ask(std::string(kSignaturePath) + other, std::nullopt)) << other;
  bring(signature_paths()[8], "an earlier one");
  node_->make_way(signature_paths()[8]);
  EXPECT_FALSE(std::filesystem::exists(place_ / (".pkgdist/incoming/" + signature_paths().back())));
}

// --- Older releases ---

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

// --- Crashes and changes on the way ---

TEST_F(SeveralKeys, stay_with_the_release_when_the_node_is_killed_at_any_moment) {
  const auto six = make(6, last_two_);
  const auto seven = make(7, {&stranger_, &signer_, &two_});
  for (size_t stop_at = 0;; ++stop_at) {
    std::filesystem::remove_all(place_ / "");
    std::filesystem::create_directories(place_.path());
    std::filesystem::remove(state_ / "base.state");
    start();
    install(*six);
    bool stopped = false;
    try {
      start(stop_at);
      install(*seven);
    } catch (const Stopped&) {
      stopped = true;
    }
    start();
    const bool is_new = current_is(*seven);
    ASSERT_TRUE(is_new || current_is(*six)) << stop_at;
    const std::vector<std::string> keys = signers_of_current();
    ASSERT_EQ((is_new ? std::vector{kOne, kTwo} : std::vector{kTwo, kThree}), keys) << stop_at;
    ASSERT_EQ(keys, node_->state().installed_keys) << stop_at;
    if (!stopped) break;
    // The next one gets through, and takes nothing of the interrupted one with it.
    const auto eight = make(8, {&three_, &signer_});
    install(*eight);
    ASSERT_EQ((std::vector{kThree, kOne}), signers_of_current()) << stop_at;
  }
  EXPECT_TRUE(current_is(*seven));
}

// All but the text of the file's first comment, which nothing protects.
TEST_F(SeveralKeys, do_not_count_with_any_byte_of_the_second_file_flipped) {
  const auto seven = make(7, first_two_);
  const std::string path = signature_paths()[1];
  const std::string good = seven->further.at(path);
  const size_t comment = std::string("untrusted comment: ").size();
  start();
  install(*make(6, first_two_));
  for (size_t at = 0; at < good.size(); ++at) {
    if (at >= comment && at < good.find('\n')) continue;
    std::string flipped = good;
    flipped[at] = static_cast<char>(flipped[at] ^ (1 << at % 8));
    seven->further[path] = flipped;
    ASSERT_EQ(Reason::kThreshold, refused(*seven)) << "byte " << at;
    ASSERT_EQ(std::nullopt, node_->candidate());
  }
  seven->further[path] = good;
  install(*seven);
  EXPECT_TRUE(current_is(*seven));
}

}  // namespace
