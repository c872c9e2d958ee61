// Releases that more than one key has signed: how many are needed, what is kept of them, and what
// becomes of them in a crash.
#include "several_keys.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

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
  EXPECT_EQ(seven->text, place_.read("current/.pkgdist/manifest"));
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
