// Forked child processes of tests: started with a function, always waited for, never left behind.
#ifndef TESTS_UNIT_PLATFORM_CHILD_H
#define TESTS_UNIT_PLATFORM_CHILD_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

class Child {
 public:
  // Runs `body` in a child; what it returns is the exit status. `orderly` leaves through exit(), so
  // that exit handlers run; otherwise the child leaves as if it had crashed.
  explicit Child(const std::function<int()>& body, bool orderly = false) : pid_(fork()) {
    if (pid_ != 0) return;
    const int status = body();
    if (orderly) std::exit(status);
    _exit(status);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (running_) kill(pid_, SIGKILL);
    wait();
  }

  pid_t pid() const { return pid_; }

  // The exit status, or minus the signal that ended the child.
  int wait() {
    if (!running_) return status_;
    int raw = 0;
    if (waitpid(pid_, &raw, 0) != pid_) return -1000;
    running_ = false;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
    return status_;
  }

 private:
  pid_t pid_;
  bool running_ = true;
  int status_ = 0;
};

// One token from a child to its parent.
class Gate {
 public:
  Gate() { EXPECT_EQ(0, pipe(ends_)); }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;
  ~Gate() {
    close(ends_[0]);
    close(ends_[1]);
  }

  void open() const { EXPECT_EQ(1, write(ends_[1], "x", 1)); }
  bool pass() const {
    char token = 0;
    return read(ends_[0], &token, 1) == 1;
  }

 private:
  int ends_[2] = {-1, -1};
};

#endif
