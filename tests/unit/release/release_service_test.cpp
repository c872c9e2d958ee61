// What is told when about releases, and what waits. The health command is a real shell that reads a
// named pipe: a trial lasts until a test writes into it.
#include "release_service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>

#include "built_release.h"
#include "introduction.h"

using namespace release_test;
using namespace pkgdist::release;
using namespace pkgdist::cli;
using namespace pkgdist::node_program;

namespace {

class Service : public testing::Test {
 protected:
  Service() {
    EXPECT_EQ(0, mkfifo(pipe_.c_str(), 0600));
    start();
  }
  ~Service() override {
    service_.reset();
    unlink(pipe_.c_str());
  }

  void start() {
    service_.reset();
    ReleaseOptions options;
    options.name = "base";
    options.health = "read word < " + pipe_ + "; test \"$word\" = good";
    ReleasePlace place;
    place.directory = place_.path();
    place.installer.name = "base";
    place.installer.place = place_.path();
    place.installer.state_directory = state_.path();
    place.installer.keys = {signer_.public_key()};
    service_ = std::make_unique<ReleaseService>(options, std::move(place));
    service_->start(
        {[this](const ReleaseState& state) { note(changes_, state); },
         [this](const std::string& text) { note(sent_, *parse_release_state(bytes_of(text))); }});
    wait_for(ReleasePhase::kIdle);
  }
  void note(std::vector<ReleaseState>& states, const ReleaseState& state) {
    const std::lock_guard lock(mutex_);
    states.push_back(state);
    changed_.notify_all();
  }
  void wait_for(ReleasePhase phase) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !changes_.empty() && changes_.back().phase == phase; });
  }
  // The answer to an order, which comes before this returns or is among the first.
  ReleaseState order(ReleaseOrder what, const Built& built, uint32_t number,
                     const std::string& name = "base", uint32_t location = 1) {
    ReleaseQuestion question;
    question.number = number;
    question.location = location;
    question.name = name;
    question.release = {built.manifest.version, to_hex(built.release().manifest)};
    question.order = what;
    EXPECT_TRUE(service_->on_message(kProgramClass, bytes_of(release_order_text(question))));
    const std::lock_guard lock(mutex_);
    for (const ReleaseState& state : sent_)
      if (state.number == number) return state;
    return {};
  }
  void bring(const std::string& path, const std::string& content) {
    place_.write(".pkgdist/incoming/" + path, content);
  }
  void make_ready(const Built& built) {
    bring(kManifestPath, built.text);
    bring(kSignaturePath, built.signature);
    order(ReleaseOrder::kCheck, built, ++number_);
    wait_for(ReleasePhase::kFetching);
    for (const Entry& entry : built.manifest.entries)
      if (entry.kind == Kind::kFile) {
        bring(entry.path, built.tree.read(entry.path));
        service_->file_ended(1, entry.path, "");
      }
    wait_for(ReleasePhase::kReady);
  }
  void end_trial(const std::string& word) { std::ofstream(pipe_) << word << "\n"; }
  size_t told(ReleasePhase phase) {
    const std::lock_guard lock(mutex_);
    size_t count = 0;
    for (const ReleaseState& state : changes_) count += state.phase == phase ? 1 : 0;
    return count;
  }

  const ReleaseSigner signer_{1};
  const TempTree place_{"/dev/shm"};
  const TempTree state_{"/dev/shm"};
  const std::string pipe_ = state_ / "pipe";
  const Built six_{6, {{"a", "1"}}, signer_};
  const Built seven_{7, {{"a", "2"}}, signer_};
  uint32_t number_ = 100;
  std::mutex mutex_;  // of these
  std::condition_variable changed_;
  std::vector<ReleaseState> changes_;
  std::vector<ReleaseState> sent_;
  std::unique_ptr<ReleaseService> service_;
};

TEST_F(Service, files_that_come_make_a_release_ready_and_orders_activate_it) {
  make_ready(six_);
  EXPECT_EQ(ReleasePhase::kActivating, order(ReleaseOrder::kActivate, six_, 1).phase);
  end_trial("good");
  wait_for(ReleasePhase::kConfirmed);
  EXPECT_EQ(6u, service_->state().current->version);
  EXPECT_EQ(1u, service_->state().number);
}

TEST_F(Service, an_order_that_waits_is_answered_with_the_phase_of_its_beginning) {
  make_ready(six_);
  order(ReleaseOrder::kActivate, six_, 1);
  wait_for(ReleasePhase::kActivating);
  EXPECT_EQ(ReleasePhase::kChecking, order(ReleaseOrder::kCheck, seven_, 2).phase);
  EXPECT_EQ(ReleasePhase::kChecking, order(ReleaseOrder::kState, seven_, 3).phase);
  end_trial("good");
  wait_for(ReleasePhase::kRefused);  // no manifest of seven has come
  EXPECT_EQ(0u, told(ReleasePhase::kConfirmed)) << "that would be taken for the end of the check";
  EXPECT_EQ(6u, service_->state().current->version);
}

TEST_F(Service, an_order_that_is_repeated_while_it_is_carried_out_is_one) {
  make_ready(six_);
  order(ReleaseOrder::kActivate, six_, 1);
  wait_for(ReleasePhase::kActivating);
  EXPECT_EQ(ReleasePhase::kActivating, order(ReleaseOrder::kActivate, six_, 2).phase);
  end_trial("bad");
  wait_for(ReleasePhase::kFailed);
  EXPECT_EQ(2u, service_->state().number);
  EXPECT_NE("", service_->state().problem);
}

TEST_F(Service, orders_for_others_change_nothing) {
  const ReleaseState name = order(ReleaseOrder::kCheck, six_, 1, "other");
  EXPECT_EQ(ReleasePhase::kRefused, name.phase);
  EXPECT_EQ("this node takes releases of 'base'", name.problem);
  const ReleaseState location = order(ReleaseOrder::kCheck, six_, 2, "base", 3);
  EXPECT_EQ("location 3 takes no releases", location.problem);
  EXPECT_EQ(3u, location.location);
  EXPECT_EQ(ReleasePhase::kIdle, service_->state().phase);
  EXPECT_FALSE(service_->on_message(kProgramClass, bytes_of("hello")));
  EXPECT_FALSE(service_->on_message(2, bytes_of("pkgdist-release-order 1 {}\n")));
}

TEST_F(Service, why_a_file_has_not_come_is_told_until_it_comes) {
  bring(kManifestPath, six_.text);
  bring(kSignaturePath, six_.signature);
  order(ReleaseOrder::kCheck, six_, 1);
  wait_for(ReleasePhase::kFetching);
  service_->file_ended(1, "stranger", "not permitted");
  EXPECT_EQ("", service_->state().problem);
  service_->file_ended(1, "a", "the disk is full");
  EXPECT_EQ("a: the disk is full", service_->state().problem);
  bring("a", "1");
  service_->file_ended(1, "a", "");
  wait_for(ReleasePhase::kReady);
  EXPECT_EQ("", service_->state().problem);
}

TEST_F(Service, commands_of_the_owner_end_with_the_state) {
  EXPECT_EQ(ReleasePhase::kRefused, service_->command({ReleaseCommand::kRollback}).get().phase);
  make_ready(six_);
  auto activated = service_->command({ReleaseCommand::kActivate});
  end_trial("good");
  const ReleaseState state = activated.get();
  EXPECT_EQ(ReleasePhase::kConfirmed, state.phase);
  EXPECT_EQ("base", state.name);
  EXPECT_EQ(0u, service_->command({ReleaseCommand::kVerify}).get().drifted);
  EXPECT_EQ(ReleasePhase::kIdle, service_->command({ReleaseCommand::kDowngrade, 5}).get().phase);
}

TEST_F(Service, a_stop_during_a_trial_goes_back) {
  make_ready(six_);
  auto activated = service_->command({ReleaseCommand::kActivate});
  wait_for(ReleasePhase::kActivating);
  service_->stop();
  EXPECT_EQ(ReleasePhase::kFailed, activated.get().phase);
  EXPECT_FALSE(std::filesystem::exists(place_ / "current"));
}

TEST_F(Service, a_stop_leaves_what_waits_undone) {
  make_ready(six_);
  auto activated = service_->command({ReleaseCommand::kActivate});
  wait_for(ReleasePhase::kActivating);
  auto verified = service_->command({ReleaseCommand::kVerify});
  service_.reset();
  EXPECT_THROW(verified.get(), std::future_error);
}

}  // namespace
