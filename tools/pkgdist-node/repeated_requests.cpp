#include "repeated_requests.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "event_printer.h"
#include "pkgdist/wire_data.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

constexpr std::chrono::seconds kSilence{10};
constexpr int kLookMs = 50;  // for a stop signal
constexpr uint32_t kPriority = 2;

// One for the process and never destroyed: the library may still queue an outcome for it.
levm_handle_t own_loop() {
  static const levm_handle_t loop = levm_create();
  if (loop == nullptr) throw std::runtime_error("no event loop could be created");
  return loop;
}

}  // namespace

RepeatedRequests::RepeatedRequests(Ended on_ended)
    : on_ended_(std::move(on_ended)), loop_(own_loop()) {}

std::map<std::string, std::string> RepeatedRequests::receive(
    uint32_t location, const std::vector<std::string>& names) {
  using Clock = std::chrono::steady_clock;
  requests_.remove_if([](const FileRequests& old) { return !old.waits(); });
  troubles_.clear();
  open_.clear();
  open_.insert(names.begin(), names.end());
  FileRequests& files =
      requests_.emplace_back(Wanted{names, location, PKGDIST_FILE_TYPE_ALWAYS, kPriority}, loop_,
                             [this](uint64_t status, const char* path, uint32_t at, uint32_t) {
                               std::string trouble = on_ended_(status, path, at);
                               open_.erase(path);
                               if (!trouble.empty()) troubles_[path] = std::move(trouble);
                             });
  uint64_t heard = heard_about_files();
  auto end = Clock::now() + kSilence;
  while (!files.run() && cli::stop_signal() == 0 && Clock::now() < end) {
    (void)levm_run_once(loop_, kLookMs);
    if (const uint64_t now = heard_about_files(); std::exchange(heard, now) != now)
      end = Clock::now() + kSilence;
  }
  for (const std::string& name : open_) troubles_[name] = "the lead sends nothing of it";
  return std::exchange(troubles_, {});
}

}  // namespace pkgdist::node_program
