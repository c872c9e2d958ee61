#include "output.h"

#include <fmt/core.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "counted.h"
#include "json_events.h"
#include "printable.h"
#include "stop_signals.h"

namespace pkgdist::cli {

namespace {

// Texts are put together up to this size; one call writes so much.
constexpr size_t kChunkBytes = size_t{64} << 10;
// How often wait_written() asks whether it is enough.
constexpr auto kAskPeriod = std::chrono::milliseconds(20);

std::string& program_name() {
  static auto* name = new std::string("pkgdist");
  return *name;
}

void tell_failure(int error) {
  const char* why = error == EPIPE ? "its reader has ended (SIGPIPE)" : std::strerror(error);
  complain(fmt::format("standard output cannot be written: {}", why));
}

// Threads get the mask of the one that starts them: a signal, a broken pipe among them, is not for
// the writing thread.
template <class Function>
void start_without_signals(Function function) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread(std::move(function)).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Whoever has the other end may have made the descriptor non-blocking: then waits for room.
ssize_t write_some(int fd, const char* text, size_t size) {
  for (;;) {
    const ssize_t written = ::write(fd, text, size);
    if (written >= 0) return written;
    if (errno == EAGAIN) {
      pollfd room{fd, POLLOUT, 0};
      (void)::poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return -1;
    }
  }
}

}  // namespace

// What the queue and its thread share; the thread may outlive the Output.
struct Output::State {
  int fd = -1;
  std::function<void(int)> on_error;
  mutable std::mutex mutex;  // of everything below
  std::condition_variable changed;
  std::deque<std::string> chunks;
  size_t waiting = 0;  // bytes, of the chunk that is being written too
  int error = 0;
  bool started = false;
  bool closed = false;
  LeftOut left_out;
};

Output::Output(int fd, std::function<void(int)> on_error) : state_(std::make_shared<State>()) {
  state_->fd = fd;
  state_->on_error = std::move(on_error);
}

Output::~Output() {
  const std::lock_guard lock(state_->mutex);
  state_->closed = true;
  state_->changed.notify_all();
}

void Output::write_out(const std::shared_ptr<State>& state) {
  (void)pthread_setname_np(pthread_self(), state->fd == STDERR_FILENO ? "STDERR" : "STDOUT");
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->changed.wait(lock, [&] { return state->closed || !state->chunks.empty(); });
    if (state->chunks.empty()) return;
    const std::string chunk = std::move(state->chunks.front());
    state->chunks.pop_front();
    for (size_t done = 0; done < chunk.size() && state->error == 0;) {
      lock.unlock();
      const ssize_t some = write_some(state->fd, chunk.data() + done, chunk.size() - done);
      const int error = some < 0 ? errno : 0;
      if (error != 0 && state->on_error) state->on_error(error);
      lock.lock();
      state->error = error;
      const size_t written = some < 0 ? 0 : static_cast<size_t>(some);
      done += written;
      state->waiting -= written;
    }
    if (state->error != 0) {
      state->chunks.clear();
      state->waiting = 0;
    }
    state->changed.notify_all();
  }
}

bool Output::write(std::string text, Kind kind) {
  State& s = *state_;
  const std::lock_guard lock(s.mutex);
  if (s.error != 0) return false;
  if (kind == Kind::kProgress && s.waiting > kMaxWaitingForProgress) {
    ++s.left_out.progress;
    return false;
  }
  if (kind == Kind::kEvent && s.waiting > kMaxWaitingForEvents) {
    ++s.left_out.events;
    return false;
  }
  s.waiting += text.size();
  if (s.chunks.empty() || s.chunks.back().size() + text.size() > kChunkBytes)
    s.chunks.push_back(std::move(text));
  else
    s.chunks.back() += text;
  if (!std::exchange(s.started, true))
    start_without_signals([state = state_] { write_out(state); });
  s.changed.notify_all();
  return true;
}

bool Output::line(std::string_view text, Kind kind) {
  return write(printable(text) + '\n', kind);
}

bool Output::wait_written(const std::function<bool()>& enough) {
  std::unique_lock lock(state_->mutex);
  while (state_->waiting != 0 && state_->error == 0) {
    (void)state_->changed.wait_for(lock, kAskPeriod);
    if (state_->waiting != 0 && enough()) break;
  }
  return state_->waiting == 0 && state_->error == 0;
}

size_t Output::waiting() const {
  const std::lock_guard lock(state_->mutex);
  return state_->waiting;
}

int Output::error() const {
  const std::lock_guard lock(state_->mutex);
  return state_->error;
}

Output::LeftOut Output::left_out() const {
  const std::lock_guard lock(state_->mutex);
  return state_->left_out;
}

Output& standard_output() {
  static auto* output = new Output(STDOUT_FILENO, tell_failure);
  return *output;
}

Output& standard_error() {
  static auto* output = new Output(STDERR_FILENO);
  return *output;
}

void set_program_name(const std::string& name) {
  program_name() = name;
}

void complain(std::string_view text) {
  standard_error().line(fmt::format("{}: {}", program_name(), text), Output::Kind::kEvent);
}

int finish_output(int status, int failure) {
  Output& out = standard_output();
  const auto enough = [] { return stop_signal() != 0 && seconds_since_stop() > kReaderSeconds; };
  if (const Output::LeftOut left = out.left_out(); left.progress + left.events != 0) {
    print_left_out(left.progress, left.events);
    complain(
        fmt::format("standard output was not read in time: {} of progress and {} "
                    "were left out",
                    counted(left.progress, "line"), counted(left.events, "event")));
  }
  const bool whole = out.wait_written(enough);
  if (!whole && out.error() == 0)
    complain(fmt::format("{}: nobody reads standard output: its last {} bytes are lost",
                         stop_text(), out.waiting()));
  (void)standard_error().wait_written(enough);
  return whole ? status : status == 0 ? failure : status;
}

}  // namespace pkgdist::cli
