// Commands that work, fail, hang and are too many. They are real ones: each case waits for a shell.
#include "message_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <mutex>

using pkgdist::cli::MessageRunner;
using pkgdist::cli::RunnerOptions;

namespace {

// What was reported, and a wait for it.
class Reports {
 public:
  MessageRunner::Report hear() {
    return [this](const std::string& text) {
      const std::lock_guard lock(mutex_);
      texts_.push_back(text);
      changed_.notify_all();
    };
  }
  std::vector<std::string> wait_for(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return texts_.size() >= count; });
    return texts_;
  }
  std::vector<std::string> texts() {
    const std::lock_guard lock(mutex_);
    return texts_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> texts_;
};

// A named pipe that commands write to: reading it waits for them.
class Fifo {
 public:
  Fifo() {
    EXPECT_NE(nullptr, mkdtemp(directory_.data()));
    path_ = directory_ + "/fifo";
    EXPECT_EQ(0, mkfifo(path_.c_str(), 0600));
  }
  ~Fifo() {
    unlink(path_.c_str());
    rmdir(directory_.c_str());
  }
  const std::string& path() const { return path_; }
  // All that one writer writes until it closes.
  std::string read() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string directory_ = "/tmp/message-runner-XXXXXX";
  std::string path_;
};

TEST(MessageRunner, a_file_has_the_bytes_until_the_command_has_ended) {
  const Fifo fifo;
  Reports reports, ends;
  MessageRunner runner({"(echo $FILE; cat; cat $FILE) > " + fifo.path() + "; exit $STATUS", 60},
                       reports.hear());
  runner.add_file("one\ntwo", {{"STATUS", "0"}}, "FILE", ends.hear());
  const std::string said = fifo.read();
  const std::string path = said.substr(0, said.find('\n'));
  EXPECT_EQ(path + "\none\ntwo", said);
  EXPECT_EQ(ends.wait_for(1), (std::vector<std::string>{""}));
  runner.add_file("", {{"STATUS", "7"}}, "FILE", ends.hear());
  (void)fifo.read();
  EXPECT_NE(ends.wait_for(2)[1].find("exit status 7"), std::string::npos);
  EXPECT_NE(0, access(path.c_str(), F_OK));
}

TEST(MessageRunner, the_command_gets_the_message_and_its_environment) {
  const Fifo fifo;
  Reports reports;
  MessageRunner runner({"(echo $NUMBER; cat) > " + fifo.path(), 60}, reports.hear());
  runner.add("one\ntwo", {{"NUMBER", "7"}});
  EXPECT_EQ("7\none\ntwo", fifo.read());
  runner.add("three", {{"NUMBER", "8"}});
  EXPECT_EQ("8\nthree", fifo.read());
  EXPECT_TRUE(reports.texts().empty());
}

TEST(MessageRunner, a_failure_is_told_with_its_exit_status) {
  Reports reports;
  MessageRunner runner({"exit 7", 60}, reports.hear());
  runner.add("x", {});
  EXPECT_EQ("'exit 7' ended with exit status 7", reports.wait_for(1)[0]);
}

TEST(MessageRunner, a_death_is_told_with_its_signal) {
  Reports reports;
  MessageRunner runner({"kill -SEGV $$", 60}, reports.hear());
  runner.add("x", {});
  EXPECT_EQ("'kill -SEGV $$' was ended by SIGSEGV", reports.wait_for(1)[0]);
}

TEST(MessageRunner, a_command_that_takes_too_long_is_ended_and_the_next_one_runs) {
  const Fifo fifo;
  Reports reports;
  const std::string command = "[ $KIND = quick ] && cat > " + fifo.path() + " || sleep 1000";
  MessageRunner runner({command, 0.2}, reports.hear());
  runner.add("x", {{"KIND", "slow"}});
  runner.add("done", {{"KIND", "quick"}});
  EXPECT_EQ("done", fifo.read());
  EXPECT_EQ("'" + command + "' was ended: it took longer than 0.2 s (--message-timeout)",
            reports.wait_for(1)[0]);
}

TEST(MessageRunner, a_command_that_ignores_sigterm_is_killed) {
  Reports reports;
  MessageRunner runner({"trap '' TERM; sleep 1000 & wait; wait", 0.1}, reports.hear());
  runner.add("x", {});
  EXPECT_NE(std::string::npos, reports.wait_for(1)[0].find("took longer"));
}

TEST(MessageRunner, the_end_does_not_wait_for_the_command_which_is_told_to_end) {
  const Fifo fifo;
  Reports reports;
  {
    MessageRunner runner({"echo > " + fifo.path() + "; exec sleep 1000", 60}, reports.hear());
    runner.add("one", {});
    runner.add("two", {});
    runner.add("three", {});
    EXPECT_EQ("\n", fifo.read()) << "the first one runs";
  }
  ASSERT_EQ(2u, reports.texts().size());
  EXPECT_NE(std::string::npos, reports.texts()[0].find("still runs: it is told to end (SIGTERM)"));
  EXPECT_EQ(0u, reports.texts()[1].find("2 messages were not handed to"));
  // Other cases may have left a command that was just ending.
  int by_signal = 0;
  for (int status = 0; wait(&status) > 0;)
    by_signal += WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM ? 1 : 0;
  EXPECT_GE(by_signal, 1);
}

TEST(MessageRunner, messages_that_wait_are_bounded_by_their_bytes) {
  const Fifo fifo;
  Reports reports;
  MessageRunner runner({"cat > /dev/null; echo > " + fifo.path(), 60}, reports.hear());
  const std::string big(MessageRunner::kMaxQueuedBytes / 2 + 1, 'x');
  runner.add("first", {});
  runner.add(big, {});  // the first one may still wait, too: it is small
  runner.add(big, {});
  EXPECT_NE(std::string::npos, reports.wait_for(1)[0].find("one is dropped"));
  EXPECT_EQ("\n", fifo.read());
  EXPECT_EQ("\n", fifo.read());
}

TEST(MessageRunner, without_a_command_nothing_happens) {
  Reports reports;
  MessageRunner runner({"", 60}, reports.hear());
  runner.add("x", {});
  EXPECT_TRUE(reports.texts().empty());
}

TEST(MessageRunner, commands_get_the_signals_that_this_program_keeps) {
  const Fifo fifo;
  Reports reports;
  MessageRunner runner({"grep SigBlk /proc/self/status > " + fifo.path(), 60}, reports.hear());
  runner.add("x", {});
  EXPECT_EQ("SigBlk:\t0000000000000000\n", fifo.read());
}

}  // namespace
