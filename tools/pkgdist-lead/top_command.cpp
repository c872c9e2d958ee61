// `pkgdist-lead top`: the full-screen view of the pushes of a lead that runs on this host, or of
// one that is fed by its events: of a file, also while it grows, or of a pipe.
#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/Error.hpp>
#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "commands.h"
#include "control_path.h"
#include "event_state.h"
#include "stop_signals.h"
#include "top_screen.h"
#include "watched_lead.h"

namespace pkgdist::lead_program {

namespace {

using Clock = std::chrono::steady_clock;

// How often the file is looked at, keys are followed and a replay goes on.
constexpr double kTickSeconds = 0.1;

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : fd_(::open(path.c_str(), flags | O_CLOEXEC)) {
    if (fd_ < 0) throw std::runtime_error(fmt::format("'{}' cannot be read", path));
  }
  ~Descriptor() { ::close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Lines as they come; never waits.
class InputLines {
 public:
  explicit InputLines(int fd) : fd_(fd) {}

  bool next(std::string& line) {
    size_t end = buffer_.find('\n', at_);
    while (end == std::string::npos) {
      buffer_.erase(0, std::exchange(at_, 0));
      const size_t looked = buffer_.size();
      if (!fill()) return false;
      end = buffer_.find('\n', looked);
    }
    line.assign(buffer_, at_, end - at_);
    at_ = end + 1;
    return true;
  }

 private:
  bool fill() {
    pollfd wait{fd_, POLLIN, 0};
    if (::poll(&wait, 1, 0) != 1) return false;
    std::array<char, 65536> some;
    const ssize_t got = ::read(fd_, some.data(), some.size());
    if (got <= 0) return false;
    buffer_.append(some.data(), static_cast<size_t>(got));
    return true;
  }

  int fd_;
  std::string buffer_;
  size_t at_ = 0;
};

// Gives events out at the pace at which they came, times `speed`; 0: at once.
class Replay {
 public:
  Replay(InputLines& lines, double speed) : lines_(lines), speed_(speed) {}

  // Hands over what is due; `show` is called whenever the view has to follow.
  template <class Show>
  void run(EventState& events, Show&& show) {
    while (have_ || (have_ = lines_.next(line_))) {
      if (speed_ > 0 && !due(events)) break;
      have_ = false;
      if (events.add(line_)) show(events.state());
    }
  }

 private:
  bool due(const EventState& events) {
    EventState next;
    (void)next.add(line_);
    const double time = next.time();
    if (time == 0 || events.time() == 0) {
      began_ = Clock::now();
      first_ = time;
      return true;
    }
    const std::chrono::duration<double> passed = Clock::now() - began_;
    return (time - first_) / speed_ <= passed.count();
  }

  InputLines& lines_;
  double speed_;
  std::string line_;
  bool have_ = false;
  Clock::time_point began_;
  double first_ = 0;
};

void follow_events(const LeadOptions& options) {
  const bool piped = options.events_path == "-";
  const std::unique_ptr<Descriptor> file =
      piped ? nullptr : std::make_unique<Descriptor>(options.events_path, O_RDONLY);
  const std::unique_ptr<Descriptor> keys =
      piped ? std::make_unique<Descriptor>("/dev/tty", O_RDWR) : nullptr;
  InputLines lines(piped ? STDIN_FILENO : file->get());
  Replay replay(lines, options.replay_speed);
  EventState events;
  TopScreen screen(piped ? keys->get() : STDIN_FILENO, false);
  while (!screen.left() && !cli::wait_for_stop(kTickSeconds)) {
    replay.run(events, [&](const PushState& state) { screen.show(state); });
    if (!events.last().empty()) screen.tell(events.last());
  }
}

// What the lead told last stays on the screen when it ends.
void follow_lead(const LeadOptions& options) {
  if (options.control_path.empty() && options.common.interface == 0)
    throw CLI::RequiredError("EVENTS, or --interface of a lead that runs here,");
  WatchedLead lead(connect_to_lead(options));
  TopScreen screen(STDIN_FILENO, true);
  try {
    while (!screen.left() && cli::stop_signal() == 0) {
      if (lead.follow(kTickSeconds)) screen.show(lead.state());
      screen.tell(lead.news());
      for (const uint32_t node : screen.take_stops()) lead.stop_for(node);
    }
  } catch (const std::runtime_error& error) {
    screen.tell(error.what());
    while (!screen.left() && !cli::wait_for_stop(kTickSeconds)) {
    }
  }
}

}  // namespace

int top_command(const LeadOptions& options) {
  if (options.events_path.empty())
    follow_lead(options);
  else
    follow_events(options);
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
