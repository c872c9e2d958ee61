// The releases of a node that runs with --releases: a thread of its own carries out what a lead or
// the host's owner orders, and takes the files that have come; whoever asks how it stands is
// answered at once.
//
// The state goes to the lead after each order, and again whenever its phase or problem changes.
// While an order waits for its turn, the state is that of its beginning, so that nobody takes the
// end of an earlier one for its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <thread>

#include "node_options.h"
#include "release_handler.h"
#include "release_messages.h"
#include "release_place.h"
#include "shell_command.h"

namespace pkgdist::node_program {

// What the host's owner wants.
struct OwnersOrder {
  ReleaseCommand command = ReleaseCommand::kStatus;
  uint64_t version = 0;  // of downgrade
  bool force = false;    // of rollback: also to a tree that somebody changed
};

class ReleaseService {
 public:
  // Hear of it on any thread.
  struct Reports {
    std::function<void(const cli::ReleaseState&)> on_state;  // it has changed
    std::function<void(const std::string& message)> send;    // to the lead
  };

  // Ends what a crash interrupted. Throws std::runtime_error when nothing can be installed in the
  // place.
  ReleaseService(const ReleaseOptions& options, ReleasePlace place);
  ~ReleaseService() { stop(); }
  ReleaseService(const ReleaseService&) = delete;
  ReleaseService& operator=(const ReleaseService&) = delete;

  // Starts the thread, and ends it: a trial that is under way is given up, and the previous release
  // is the current one again.
  void start(Reports reports);
  void stop();

  // Whom the gate asks. May outlive the service.
  std::shared_ptr<const release::Installer> installer() const { return installer_; }
  // A message of the lead; false when it is another one.
  bool on_message(uint32_t msg_class, std::span<const uint8_t> bytes);
  // A file of the location has ended: "" when it has come, or why it has not.
  void file_ended(uint32_t location, const std::string& path, const std::string& trouble);

  // Of the host's owner. The state when it is done; a broken promise when the node ends before.
  std::future<cli::ReleaseState> command(const OwnersOrder& order);
  cli::ReleaseState state() const;
  // Readable when a command may be done; take_wake() makes it unreadable again.
  int wake_fd() const { return wake_.get(); }
  void take_wake() const;

 private:
  struct Order {
    cli::ReleasePhase phase = cli::ReleasePhase::kChecking;  // while it is carried out
    std::function<void()> run;
    std::optional<cli::ReleaseQuestion> question;  // of a lead
    std::promise<cli::ReleaseState> done;
  };
  static constexpr size_t kMaxOrders = 64;  // that wait

  std::string check_health(uint64_t version) const;
  // With the lock held.
  bool is_under_way(const cli::ReleaseQuestion& question) const;
  void add(Order order);
  cli::ReleaseState told() const;
  cli::ReleaseState refusal(const cli::ReleaseQuestion& question, const std::string& why) const;

  // On the thread.
  void work();
  void carry_out(Order order);
  bool next(std::optional<Order>& order, std::vector<std::string>& paths);
  void changed(const cli::ReleaseState& state);

  const ReleaseOptions options_;
  const ReleasePlace place_;
  Reports reports_;
  cli::Interruption end_;
  std::atomic<bool> ending_{false};
  std::atomic<bool> may_interrupt_{true};  // what the thread does at the moment
  const std::shared_ptr<release::Installer> installer_;
  ReleaseHandler handler_;  // of the thread
  const cli::Fd wake_;

  mutable std::mutex mutex_;  // of these
  std::condition_variable more_;
  std::deque<Order> orders_;
  std::optional<cli::ReleaseQuestion> running_;
  std::deque<std::string> arrivals_;
  std::set<std::string> known_arrivals_;
  cli::ReleaseState state_;      // as the handler told it last, with the number of the last order
  mutable uint64_t serial_ = 0;  // of the states that were told
  std::string file_trouble_;     // why a file has not come, the last one
  std::thread thread_;
};

}  // namespace pkgdist::node_program
