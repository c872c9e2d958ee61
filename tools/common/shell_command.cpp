#include "shell_command.h"

#include <fmt/core.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <system_error>

#include "stop_signals.h"

namespace pkgdist::cli {

namespace {

using Clock = std::chrono::steady_clock;
using End = ShellOutcome::End;

// Fills a file in memory, to be read from its start. False when there is no room for it.
bool fill(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t some = ::write(file, bytes.data(), bytes.size());
    if (some <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(some));
  }
  return ::lseek(file, 0, SEEK_SET) == 0;
}

// "NAME=value", those of this program unless `own` has the name too.
std::vector<std::string> whole_environment(const Environment& own) {
  std::vector<std::string> all;
  for (const auto& [name, value] : own) all.push_back(name + "=" + value);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    const std::string_view name = text.substr(0, text.find('='));
    const bool replaced =
        std::any_of(own.begin(), own.end(), [&](const auto& one) { return one.first == name; });
    if (!replaced) all.emplace_back(text);
  }
  return all;
}

// The shell in a process group of its own, with the usual signals: this program's threads keep some
// to themselves. An errno, or 0 and the child.
int spawn_shell(const std::string& command, const Environment& own, int input, pid_t& child) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t set;
  sigemptyset(&set);
  posix_spawnattr_setsigmask(&attributes, &set);
  // The server of --metrics ignores broken pipes; a command shall not.
  sigaddset(&set, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &set);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  std::string shell = "sh", option = "-c", text = command;
  char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  std::vector<std::string> environment = whole_environment(own);
  std::vector<char*> pointers;
  for (std::string& entry : environment) pointers.push_back(entry.data());
  pointers.push_back(nullptr);
  const int error =
      ::posix_spawn(&child, "/bin/sh", &files, &attributes, arguments, pointers.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return error;
}

Clock::duration clock_seconds(double value) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(value));
}

ShellOutcome ended(int status, bool too_long) {
  if (too_long) return {End::kTooLong, 0};
  if (WIFSIGNALED(status)) return {End::kSignalled, WTERMSIG(status)};
  return {End::kExited, WEXITSTATUS(status)};
}

// Until one of the descriptors (-1: none) is readable or the time is over.
void wait(int first, int second, int milliseconds) {
  pollfd fds[2] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
  (void)::poll(fds, 2, milliseconds);
}

ShellOutcome await(pid_t child, double limit_seconds, const Interruption& interruption) {
  constexpr int kLookMs = 20;  // where the system has no descriptors of processes
  const Fd end(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  auto deadline = Clock::now() + clock_seconds(limit_seconds);
  int ends_sent = 0;
  for (;;) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != 0) return ended(status, ends_sent != 0);
    if (interruption.is_set()) {
      ::kill(-child, SIGTERM);
      return {End::kLeft, 0};
    }
    if (Clock::now() >= deadline) {
      ::kill(-child, ends_sent++ == 0 ? SIGTERM : SIGKILL);
      deadline = Clock::now() + clock_seconds(kKillSeconds);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const auto wait_ms = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3'600'000));
    wait(end.get(), interruption.fd(), !end ? std::min(kLookMs, wait_ms) : wait_ms);
  }
}

}  // namespace

Interruption::Interruption() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Interruption::set() {
  const uint64_t one = 1;
  (void)!::write(event_.get(), &one, sizeof one);
}

bool Interruption::is_set() const {
  pollfd ready = {event_.get(), POLLIN, 0};
  return ::poll(&ready, 1, 0) > 0;
}

ShellOutcome run_shell(const ShellCommand& command, std::string_view input,
                       const Environment& environment, const Interruption& interruption) {
  const Fd file(::memfd_create("pkgdist-input", MFD_CLOEXEC));
  pid_t child = 0;
  int error = file && fill(file.get(), input) ? 0 : errno;
  if (error == 0) error = spawn_shell(command.text, environment, file.get(), child);
  if (error != 0) return {End::kNotStarted, error};
  return await(child, command.limit_seconds, interruption);
}

std::string trouble_text(const ShellCommand& command, const ShellOutcome& outcome) {
  if (outcome.succeeded()) return "";
  const std::string name = "'" + command.text + "'";
  switch (outcome.end) {
    case End::kTooLong:
      return fmt::format("{} was ended: it took longer than {} s ({})", name, command.limit_seconds,
                         command.limit_option);
    case End::kSignalled:
      return fmt::format("{} was ended by {}", name, signal_name(outcome.value));
    case End::kNotStarted:
      return fmt::format("{} could not be started: {}", name, std::strerror(outcome.value));
    case End::kLeft:
      return fmt::format("{} still runs: it is told to end (SIGTERM)", name);
    default:
      return fmt::format("{} ended with exit status {}", name, outcome.value);
  }
}

}  // namespace pkgdist::cli
