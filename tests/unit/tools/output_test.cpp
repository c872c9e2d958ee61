// Output on pipes that nobody reads.
#include "output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <sstream>

#include "json_events.h"

using pkgdist::cli::Output;

namespace {

using Kind = Output::Kind;

// A pipe whose reader is the test. The descriptors stay open while a writing thread may use them.
struct Pipe {
  Pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC)); }

  std::string read(size_t bytes) {
    std::string text(bytes, '\0');
    size_t got = 0;
    while (got < bytes) {
      const ssize_t some = ::read(ends[0], text.data() + got, bytes - got);
      if (some <= 0) break;
      got += static_cast<size_t>(some);
    }
    text.resize(got);
    return text;
  }
  void close_reader() { ::close(ends[0]); }

  int ends[2] = {-1, -1};
};

bool never() {
  return false;
}

// More than a pipe holds.
std::string much(char c) {
  return std::string(1 << 20, c);
}

// Writes so many bytes, a multiple of a mebibyte.
size_t fill(Output& output, size_t bytes) {
  for (size_t i = 0; i < bytes; i += 1 << 20) EXPECT_TRUE(output.write(much('r'), Kind::kResult));
  return bytes;
}

TEST(Output, what_is_written_arrives_in_order) {
  Pipe pipe;
  Output output(pipe.ends[1]);
  output.line("one", Kind::kEvent);
  output.write("two\n", Kind::kProgress);
  output.line("three", Kind::kResult);
  EXPECT_TRUE(output.wait_written(never));
  EXPECT_EQ("one\ntwo\nthree\n", pipe.read(14));
}

TEST(Output, lines_are_printable) {
  Pipe pipe;
  Output output(pipe.ends[1]);
  output.line("a\x1b[2J\nb", Kind::kEvent);
  EXPECT_EQ("a?[2J?b\n", pipe.read(8));
}

TEST(Output, a_reader_that_stops_costs_progress_then_events_and_never_results) {
  Pipe pipe;
  Output output(pipe.ends[1]);
  size_t kept = fill(output, Output::kMaxWaitingForProgress + (2 << 20));
  EXPECT_FALSE(output.write("progress\n", Kind::kProgress));
  EXPECT_FALSE(output.write("progress\n", Kind::kProgress));
  EXPECT_TRUE(output.write("event\n", Kind::kEvent));
  kept += fill(output, Output::kMaxWaitingForEvents);
  EXPECT_FALSE(output.write("event\n", Kind::kEvent));
  EXPECT_TRUE(output.write("result\n", Kind::kResult));
  EXPECT_EQ(2u, output.left_out().progress);
  EXPECT_EQ(1u, output.left_out().events);

  const std::string all = pipe.read(kept + std::string("event\nresult\n").size());
  EXPECT_NE(std::string::npos, all.find("event\n"));
  EXPECT_EQ("result\n", all.substr(all.size() - 7));
  EXPECT_TRUE(output.wait_written(never));
}

TEST(Output, a_late_reader_gets_everything_that_was_kept) {
  Pipe pipe;
  Output output(pipe.ends[1]);
  const std::string first = much('a'), second = much('b');
  output.write(first, Kind::kResult);
  output.write(second, Kind::kResult);
  EXPECT_FALSE(output.wait_written([] { return true; })) << "nobody reads";
  EXPECT_EQ(first + second, pipe.read(first.size() + second.size()));
  EXPECT_TRUE(output.wait_written(never));
  EXPECT_EQ(0u, output.waiting());
}

TEST(Output, a_reader_that_has_gone_is_an_error_and_no_signal) {
  Pipe pipe;
  std::atomic<int> told{0};
  Output output(pipe.ends[1], [&](int error) { told = error; });
  pipe.close_reader();
  output.write("text", Kind::kResult);
  EXPECT_FALSE(output.wait_written(never));
  EXPECT_EQ(EPIPE, output.error());
  EXPECT_EQ(EPIPE, told);
  EXPECT_FALSE(output.write("more", Kind::kResult));
  EXPECT_EQ(0u, output.waiting());
}

TEST(Output, a_full_disk_is_an_error) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  Output output(full);
  output.write("text", Kind::kResult);
  EXPECT_FALSE(output.wait_written(never));
  EXPECT_EQ(ENOSPC, output.error());
}

TEST(Output, a_pipe_that_somebody_made_non_blocking_is_waited_for) {
  Pipe pipe;
  ASSERT_EQ(0, fcntl(pipe.ends[1], F_SETFL, O_NONBLOCK));
  Output output(pipe.ends[1]);
  const std::string text = much('x');
  output.write(text, Kind::kResult);
  EXPECT_EQ(text, pipe.read(text.size()));
  EXPECT_TRUE(output.wait_written(never));
}

// A program with events whose reader stops reading; its exit status. Says on the second pipe when
// it has nothing more to tell.
[[noreturn]] void overrun_the_reader(const Pipe& output, const Pipe& ready) {
  (void)dup2(output.ends[1], STDOUT_FILENO);
  for (const int fd : {output.ends[0], output.ends[1], ready.ends[0]}) ::close(fd);
  const pkgdist::cli::JsonEvents events(true);
  for (size_t i = 0; i <= Output::kMaxWaitingForProgress; i += 1 << 20)
    events.print("result", {{"text", much('r')}}, Kind::kResult);
  events.print("result", {{"text", "the last one"}}, Kind::kResult);
  for (int i = 0; i < 3; ++i) events.print("progress", {{"number", i}}, Kind::kProgress);
  (void)!::write(ready.ends[1], "!", 1);
  _exit(pkgdist::cli::finish_output(0, 1));
}

TEST(Output, a_reader_that_reads_on_is_told_at_the_end_what_was_left_out) {
  Pipe output;
  Pipe ready;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) overrun_the_reader(output, ready);
  for (const Pipe& pipe : {output, ready}) ::close(pipe.ends[1]);
  ASSERT_EQ("!", ready.read(1));
  std::istringstream lines(output.read(Output::kMaxWaitingForProgress * 2));
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);

  std::vector<nlohmann::json> events;
  for (std::string line; std::getline(lines, line);) events.push_back(nlohmann::json::parse(line));
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ("the last one", events[events.size() - 2].at("text"));
  EXPECT_EQ("output-left-out", events.back().at("event"));
  EXPECT_EQ(3, events.back().at("progress"));
  EXPECT_EQ(0, events.back().at("events"));
}

TEST(Output, its_end_does_not_wait_for_a_reader) {
  Pipe pipe;
  {
    Output output(pipe.ends[1]);
    output.write(much('x'), Kind::kResult);
  }
  SUCCEED();
}

}  // namespace
