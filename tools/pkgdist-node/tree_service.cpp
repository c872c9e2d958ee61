#include "tree_service.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "content_work.h"
#include "lead_talk.h"
#include "tree_work.h"

namespace pkgdist::node_program {

class TreeService::Work {
 public:
  Work(const NodeOptions& options, Told told)
      : options_(options),
        keys_(keys_of(options)),
        told_(std::move(told)),
        requests_(told_.file_ended),
        thread_([this] { run(); }) {}

  // Waits for what is being done, which a stop signal cuts short.
  ~Work() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  void add(const cli::NodeQuestion& question) {
    for (const std::string& text : enter(question)) send_to_lead(text);
  }

 private:
  // What is known of the question already; nothing when it is new. What is too much gets no answer.
  // A number alone does not tell: another lead, or the next process of this one, may use it, too.
  std::vector<std::string> enter(const cli::NodeQuestion& question) {
    constexpr size_t kMostWaiting = 256;
    const std::lock_guard lock(mutex_);
    if (last_ == question) return answer_.empty() ? working(question) : answer_;
    if (std::find(waiting_.begin(), waiting_.end(), question) != waiting_.end())
      return working(question);
    if (waiting_.size() < kMostWaiting) waiting_.push_back(question);
    changed_.notify_all();
    return {};
  }

  static std::vector<std::string> working(const cli::NodeQuestion& question) {
    return {cli::working_text(question.number)};
  }

  static std::vector<release::PublicKey> keys_of(const NodeOptions& options) {
    if (options.push_keys.empty()) return {};
    return release::read_public_keys(options.push_keys);
  }

  // --- On the thread ---

  void run() {
    (void)pthread_setname_np(pthread_self(), "TREES");
    for (;;) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
      if (ended_) return;
      const cli::NodeQuestion question = std::move(waiting_.front());
      waiting_.pop_front();
      last_ = question;
      answer_.clear();
      lock.unlock();
      std::vector<std::string> texts;
      for (const cli::NodeAnswer& piece : pieces_of(answer(question)))
        texts.push_back(cli::answer_text(piece));
      for (const std::string& text : texts) send_to_lead(text);
      lock.lock();
      answer_ = std::move(texts);
    }
  }

  cli::NodeAnswer answer(const cli::NodeQuestion& question) {
    using Kind = cli::NodeQuestion::Kind;
    constexpr unsigned kPermissions = 0777, kAllBits = 07777;
    const auto location = options_.common.locations.find(question.location);
    if (location == options_.common.locations.end())
      return {.number = question.number, .states = {cli::kStateNoLocation}};
    if (location->second.memory)
      return {.number = question.number, .states = {"the location is in shared memory"}};
    const TreePlace place{.directory = location->second.path,
                          .mode_mask = options_.allow_setuid ? kAllBits : kPermissions,
                          .umask = options_.umask};
    if (question.kind == Kind::kDirectories) return set_directories(place, question);
    if (question.kind == Kind::kList) return list_other_names(place, question);
    if (question.kind == Kind::kCompare) return compare(place, question);
    cli::NodeAnswer said = remove_names(place, question);
    tell_removed(question, said);
    return said;
  }

  cli::NodeAnswer compare(const TreePlace& place, const cli::NodeQuestion& question) {
    cli::NodeAnswer said =
        compare_contents(place.directory, question, keys_,
                         [this](uint32_t location, const std::vector<std::string>& names) {
                           return requests_.receive(location, names);
                         });
    if (!said.names.empty() || !said.problems.empty()) told_.compared(question.location, said);
    return said;
  }

  void tell_removed(const cli::NodeQuestion& question, const cli::NodeAnswer& said) const {
    std::vector<std::string> names;
    for (size_t i = 0; i < question.names.size(); ++i)
      if (said.states[i] == cli::kStateAbsent) names.push_back(question.names[i]);
    if (!names.empty()) told_.removed(question.location, names);
  }

  const NodeOptions& options_;
  const std::vector<release::PublicKey> keys_;  // of pushes
  const Told told_;
  RepeatedRequests requests_;
  std::mutex mutex_;  // of these
  std::condition_variable changed_;
  std::deque<cli::NodeQuestion> waiting_;
  std::optional<cli::NodeQuestion> last_;  // that was worked on
  std::vector<std::string> answer_;        // to it, in pieces; empty while it is under way
  bool ended_ = false;
  std::thread thread_;  // the last: it uses the others
};

TreeService::TreeService(const NodeOptions& options, Told told)
    : work_(std::make_unique<Work>(options, std::move(told))) {}

TreeService::~TreeService() = default;

bool TreeService::take(const cli::NodeQuestion& question) {
  using Kind = cli::NodeQuestion::Kind;
  const bool mine = question.kind == Kind::kDirectories || question.kind == Kind::kList ||
                    question.kind == Kind::kCompare ||
                    (question.kind == Kind::kRemove && question.files_too);
  if (mine) work_->add(question);
  return mine;
}

}  // namespace pkgdist::node_program
