#include "message_runner.h"

#include <fmt/core.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>

#include "cli_common.h"

namespace pkgdist::lead_program {

namespace {

// Messages that wait while a command runs, in bytes; more are told and dropped.
constexpr size_t kMaxQueuedBytes = 64 * 1024 * 1024;

// A file in memory with these bytes, to be read from its start.
Fd file_of(const std::vector<uint8_t>& bytes) {
  Fd file(::memfd_create("pkgdist-message", MFD_CLOEXEC));
  for (size_t written = 0; file && written < bytes.size();) {
    const ssize_t some = ::write(file.get(), bytes.data() + written, bytes.size() - written);
    if (some <= 0) return Fd();
    written += static_cast<size_t>(some);
  }
  if (file) (void)::lseek(file.get(), 0, SEEK_SET);
  return file;
}

// The shell with the message as its standard input, and with the signals that this program keeps
// to itself. 0 when it cannot be started.
pid_t spawn_shell(const std::string& command, int input) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  // The server of --metrics ignores broken pipes; a command shall not.
  sigset_t usual;
  sigemptyset(&usual);
  sigaddset(&usual, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::string shell = "sh", option = "-c", text = command;
  char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
  pid_t child = 0;
  if (::posix_spawn(&child, "/bin/sh", &files, &attributes, arguments, environ) != 0) child = 0;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return child;
}

}  // namespace

MessageRunner::MessageRunner(std::string command, Poller& poller, Reporter& reporter)
    : command_(std::move(command)), poller_(poller), reporter_(reporter) {}

MessageRunner::~MessageRunner() {
  if (child_end_) poller_.remove(child_end_.get());
}

void MessageRunner::add(const lead::NodeInfo& node, uint32_t msg_class,
                        std::span<const uint8_t> bytes) {
  if (command_.empty()) return;
  if (queued_bytes_ + bytes.size() > kMaxQueuedBytes)
    return reporter_.error("too many messages wait for the command: one is dropped");
  queue_.push_back({node.address, msg_class, {bytes.begin(), bytes.end()}});
  queued_bytes_ += bytes.size();
  start_next();
}

bool MessageRunner::start(const Waiting& message) {
  const Fd input = file_of(message.bytes);
  if (!input) return false;
  (void)::setenv("PKGDIST_MESSAGE_CLASS", std::to_string(message.msg_class).c_str(), 1);
  (void)::setenv("PKGDIST_MESSAGE_NODE", cli::format_address(message.node).c_str(), 1);
  child_ = spawn_shell(command_, input.get());
  if (child_ == 0) return false;
  child_end_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, child_, 0)));
  if (child_end_) poller_.add(child_end_.get(), EPOLLIN, [this] { on_ended(); });
  return true;
}

void MessageRunner::start_next() {
  while (child_ == 0 && !queue_.empty()) {
    const Waiting message = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= message.bytes.size();
    if (!start(message)) reporter_.error(fmt::format("'{}' could not be started", command_));
    if (child_ != 0 && !child_end_) on_ended();  // an old system: waits for the command
  }
}

void MessageRunner::on_ended() {
  int status = 0;
  (void)::waitpid(child_, &status, 0);
  if (child_end_) poller_.remove(child_end_.get());
  child_end_ = Fd();
  child_ = 0;
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
    reporter_.error(fmt::format("'{}' ended with status {}", command_, WEXITSTATUS(status)));
  if (WIFSIGNALED(status))
    reporter_.error(fmt::format("'{}' ended by signal {}", command_, WTERMSIG(status)));
  start_next();
}

}  // namespace pkgdist::lead_program
