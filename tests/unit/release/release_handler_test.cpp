// Orders about releases, and the states that come of them.
#include "release_handler.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "built_release.h"

using namespace release_test;
using namespace pkgdist::release;
using pkgdist::cli::phase_name;
using pkgdist::cli::ReleaseId;
using pkgdist::cli::ReleasePhase;
using pkgdist::cli::ReleaseState;
using pkgdist::node_program::ReleaseHandler;

namespace {

ReleaseId id_of(const Built& built) {
  return {built.manifest.version, to_hex(built.release().manifest)};
}

class Handler : public testing::Test {
 protected:
  Handler() { start(); }

  void start() {
    InstallerOptions options;
    options.name = "base";
    options.place = place_.path();
    options.state_directory = state_.path();
    options.keys = {signer_.public_key()};
    installer_ =
        std::make_shared<Installer>(options, Disk([this](const char* operation) {
                                      if (operation == failing_ || ++operations_ == fail_at_)
                                        throw std::runtime_error(failing_ + " failed");
                                    }));
    installer_->recover();
    handler_ = std::make_unique<ReleaseHandler>(
        installer_,
        [this](uint64_t version) {
          healths_.push_back(version);
          return sick_;
        },
        [this](const ReleaseState& state) { phases_.push_back(phase_name(state.phase)); });
    handler_->resume();
    phases_.clear();
  }
  void bring(const std::string& path, const std::string& content) {
    place_.write(".pkgdist/incoming/" + path, content);
  }
  void describe(const Built& built) {
    bring(kManifestPath, built.text);
    bring(kSignaturePath, built.signature);
    bring(kLeavesPath, built.leaves);
  }
  void fetch(const Built& built) {
    for (const Entry& entry : built.manifest.entries)
      if (entry.kind == Kind::kFile && installer_->ask(entry.path, std::nullopt) == 0) {
        bring(entry.path, built.tree.read(entry.path));
        handler_->arrived({entry.path});
      }
  }
  void make_ready(const Built& built) {
    describe(built);
    handler_->check(id_of(built));
    fetch(built);
  }
  ReleasePhase phase() const { return handler_->state().phase; }
  std::string problem() const { return handler_->state().problem; }
  std::vector<std::string> take_phases() { return std::exchange(phases_, {}); }

  using Phases = std::vector<std::string>;
  const ReleaseSigner signer_{1};
  const TempTree place_{"/dev/shm"};
  const TempTree state_{"/dev/shm"};
  const Built six_{6, {{"a", "1"}, {"b", "22"}}, signer_};
  const Built seven_{7, {{"a", "1"}, {"b", "333"}}, signer_};
  std::shared_ptr<Installer> installer_;
  std::unique_ptr<ReleaseHandler> handler_;
  std::string failing_;  // the disk's operation
  size_t operations_ = 0;
  size_t fail_at_ = 0;  // number of one
  std::string sick_;    // what the health check says
  std::vector<uint64_t> healths_;
  Phases phases_;
};

TEST_F(Handler, tells_every_phase_from_the_check_to_the_confirmation) {
  EXPECT_EQ(ReleasePhase::kIdle, phase());
  describe(six_);
  handler_->check(id_of(six_));
  EXPECT_EQ((Phases{"checking", "fetching"}), take_phases());
  const ReleaseState fetching = handler_->state();
  EXPECT_EQ(id_of(six_), fetching.candidate);
  EXPECT_EQ(2u, fetching.missing);
  EXPECT_EQ(std::vector<uint8_t>{0b11}, fetching.files);
  fetch(six_);
  EXPECT_EQ(Phases{"ready"}, take_phases());
  handler_->fetched(id_of(six_));
  EXPECT_EQ((Phases{"checking", "ready"}), take_phases());
  handler_->activate(id_of(six_));
  EXPECT_EQ((Phases{"activating", "activating", "confirmed"}), take_phases());
  EXPECT_EQ(id_of(six_), handler_->state().current);
  EXPECT_EQ(std::vector<uint64_t>{6}, healths_);
}

TEST_F(Handler, orders_for_the_current_release_are_done_already) {
  make_ready(six_);
  handler_->activate(id_of(six_));
  handler_->check(id_of(six_));
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  handler_->fetched(id_of(six_));
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  handler_->activate(id_of(six_));
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  EXPECT_EQ(1u, healths_.size());
}

TEST_F(Handler, orders_for_a_release_that_is_not_there_are_refused) {
  handler_->check(id_of(six_));
  EXPECT_EQ(ReleasePhase::kRefused, phase());
  EXPECT_EQ("no manifest has come", problem());
  handler_->fetched(id_of(six_));
  EXPECT_EQ("this release is not being fetched here", problem());
  describe(six_);
  handler_->check(id_of(six_));
  EXPECT_EQ(ReleasePhase::kFetching, phase());
  handler_->activate(id_of(six_));
  EXPECT_EQ("this release is not ready here", problem());
  fetch(six_);
  handler_->activate(id_of(seven_));
  EXPECT_EQ("this release is not ready here", problem());
  handler_->activate(std::nullopt);
  EXPECT_EQ(ReleasePhase::kConfirmed, phase()) << "the owner means whatever is ready";
}

TEST_F(Handler, files_that_came_unnoticed_count_when_all_were_sent) {
  describe(six_);
  handler_->check(id_of(six_));
  bring("a", "1");
  bring("b", "22");
  handler_->fetched(id_of(six_));
  EXPECT_EQ(ReleasePhase::kReady, phase());
}

TEST_F(Handler, a_wrong_file_is_told_and_given_up_after_three_times) {
  describe(six_);
  handler_->check(id_of(six_));
  for (unsigned time = 1; time < ReleaseHandler::kMaxMismatches; ++time) {
    bring("a", "x");
    handler_->arrived({"a"});
    EXPECT_EQ(ReleasePhase::kFetching, phase());
    EXPECT_EQ("'a' has another content than signed", problem());
  }
  bring("a", "x");
  handler_->fetched(id_of(six_));
  EXPECT_EQ(ReleasePhase::kRefused, phase());
  EXPECT_EQ("'a' has another content than signed, 3 times", problem());
  // What is right afterwards is taken all the same, and a check begins anew.
  describe(six_);
  handler_->check(id_of(six_));
  EXPECT_EQ(ReleasePhase::kFetching, phase());
  EXPECT_EQ("", problem());
  fetch(six_);
  EXPECT_EQ(ReleasePhase::kReady, phase());
}

TEST_F(Handler, a_release_whose_health_check_fails_is_taken_back) {
  make_ready(six_);
  handler_->activate(std::nullopt);
  make_ready(seven_);
  sick_ = "no answer from the program";
  handler_->activate(id_of(seven_));
  EXPECT_EQ(ReleasePhase::kFailed, phase());
  EXPECT_EQ("no answer from the program", problem());
  EXPECT_EQ(id_of(six_), handler_->state().current);
  sick_.clear();
  describe(seven_);
  handler_->check(id_of(seven_));
  EXPECT_EQ("this release was activated before and failed or was rolled back", problem());
}

TEST_F(Handler, a_disk_that_fails_while_it_switches_leaves_the_release_before) {
  make_ready(six_);
  handler_->activate(std::nullopt);
  make_ready(seven_);
  failing_ = "make link";
  handler_->activate(id_of(seven_));
  failing_.clear();
  EXPECT_EQ(ReleasePhase::kFailed, phase());
  EXPECT_EQ("make link failed; going back: make link failed", problem());
  EXPECT_EQ(id_of(six_), handler_->state().current);
  start();
  EXPECT_EQ(id_of(six_), handler_->state().current);
}

TEST_F(Handler, a_state_that_cannot_be_written_switches_nothing) {
  make_ready(six_);
  failing_ = "write";
  handler_->activate(id_of(six_));
  failing_.clear();
  EXPECT_EQ(ReleasePhase::kRefused, phase());
  EXPECT_EQ(std::nullopt, handler_->state().current);
  handler_->activate(id_of(six_));
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
}

TEST_F(Handler, a_disk_that_fails_at_the_end_is_refused_and_the_next_check_goes_on) {
  describe(six_);
  handler_->check(id_of(six_));
  failing_ = "sync everything";
  fetch(six_);
  EXPECT_EQ(ReleasePhase::kRefused, phase());
  EXPECT_EQ("sync everything failed", problem());
  failing_.clear();
  handler_->check(id_of(six_));
  EXPECT_EQ(ReleasePhase::kReady, phase()) << "without a file more";
}

TEST_F(Handler, a_disk_that_fails_at_any_step_leaves_a_whole_release_and_the_reason) {
  size_t told = 0;
  for (fail_at_ = 1;; ++fail_at_) {
    const size_t fail_at = std::exchange(fail_at_, 0);
    std::filesystem::remove_all(place_ / "");
    std::filesystem::create_directories(place_.path());
    std::filesystem::remove(state_ / "base.state");
    start();
    make_ready(six_);
    handler_->activate(std::nullopt);
    ASSERT_EQ(ReleasePhase::kConfirmed, phase());
    operations_ = 0;
    fail_at_ = fail_at;
    make_ready(seven_);
    if (phase() == ReleasePhase::kReady) handler_->activate(id_of(seven_));
    const bool failed = operations_ >= fail_at_;
    const bool switched = phase() == ReleasePhase::kConfirmed;
    // What cannot be copied from the current release comes anew, with nothing to tell.
    if (!switched) {
      EXPECT_NE(std::string::npos, problem().find(" failed")) << fail_at << phase_name(phase());
      ++told;
    }
    EXPECT_EQ(switched ? id_of(seven_) : id_of(six_), handler_->state().current) << fail_at;
    handler_->verify();
    EXPECT_EQ(0u, handler_->state().drifted) << fail_at;
    if (!failed) break;
  }
  EXPECT_GT(told, 20u);
}

TEST_F(Handler, verification_names_what_differs_and_changes_nothing_else) {
  handler_->verify();
  EXPECT_EQ("no release is installed", problem());
  make_ready(six_);
  handler_->activate(std::nullopt);
  handler_->verify();
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  EXPECT_EQ(0u, handler_->state().drifted);
  place_.write("current/a", "x");
  place_.write("current/more", "");
  take_phases();
  handler_->verify();
  EXPECT_EQ((Phases{"verifying", "confirmed"}), take_phases());
  EXPECT_EQ(2u, handler_->state().drifted);
  EXPECT_EQ((std::vector<std::string>{"a", "more"}), handler_->state().drift);
  handler_->check(id_of(six_));
  EXPECT_EQ(std::nullopt, handler_->state().drifted) << "that was then";
}

TEST_F(Handler, verification_names_what_no_release_can_have_beside_the_rest) {
  make_ready(six_);
  handler_->activate(std::nullopt);
  std::filesystem::remove(place_ / "current/a");
  ASSERT_EQ(0, mkfifo((place_ / "current/a").c_str(), 0644));
  ASSERT_EQ(0, mkfifo((place_ / "current/fifo").c_str(), 0644));
  const timespec old[2] = {{-1, 0}, {-1, 0}};  // before 1970
  ASSERT_EQ(0, utimensat(AT_FDCWD, (place_ / "current/b").c_str(), old, 0));
  handler_->verify();
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  EXPECT_EQ((std::vector<std::string>{"a", "b", "fifo"}), handler_->state().drift);
}

TEST_F(Handler, the_owner_goes_back_and_allows_what_was_refused) {
  handler_->roll_back(Installer::RollBack::kWhenWhole);
  EXPECT_EQ("there is no previous release to go back to", problem());
  make_ready(six_);
  handler_->activate(std::nullopt);
  make_ready(seven_);
  handler_->activate(std::nullopt);
  handler_->roll_back(Installer::RollBack::kWhenWhole);
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  EXPECT_EQ(id_of(six_), handler_->state().current);
  make_ready(seven_);
  EXPECT_EQ("this release was activated before and failed or was rolled back", problem());
  handler_->allow(7);
  make_ready(seven_);
  EXPECT_EQ(ReleasePhase::kReady, phase());
}

TEST_F(Handler, a_way_back_to_a_tree_that_differs_takes_force_and_says_what_differs) {
  make_ready(six_);
  handler_->activate(std::nullopt);
  make_ready(seven_);
  handler_->activate(std::nullopt);
  place_.write("previous/a", "x");
  handler_->roll_back(Installer::RollBack::kWhenWhole);
  EXPECT_EQ(ReleasePhase::kRefused, phase());
  EXPECT_NE(std::string::npos, problem().find("content differs: a; 'release rollback --force'"));
  EXPECT_EQ(id_of(seven_), handler_->state().current);
  handler_->roll_back(Installer::RollBack::kForced);
  EXPECT_EQ(ReleasePhase::kConfirmed, phase());
  EXPECT_TRUE(problem().ends_with("content differs: a")) << problem();
  EXPECT_EQ(id_of(six_), handler_->state().current);
}

TEST_F(Handler, a_restart_goes_on_with_what_was_staged) {
  describe(six_);
  handler_->check(id_of(six_));
  bring("a", "1");
  handler_->arrived({"a"});
  start();
  EXPECT_EQ(ReleasePhase::kFetching, phase());
  EXPECT_EQ(std::vector<uint8_t>{0b10}, handler_->state().files);
  fetch(six_);
  EXPECT_EQ(ReleasePhase::kReady, phase());
}

}  // namespace
