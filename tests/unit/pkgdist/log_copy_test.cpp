// Copies of log statements on standard error: who gets one, what stands before it, what behind.
#include <unistd.h>

#include <regex>

#include "pkgdist_log.h"
#include "pkgdist_stats.h"
#include "platform/inst_common.h"
#include "recv_support.h"

using namespace support;

namespace {

class LogCopy : public RecvTest {
 protected:
  void TearDown() override {
    g_inst_common_debug_verbosity_level = g_inst_common_debug_prefix = 0;
    RecvTest::TearDown();
  }

  static std::string copies_of(int32_t verbosity, int32_t prefix,
                               const std::function<void()>& act) {
    g_inst_common_debug_verbosity_level = verbosity;
    g_inst_common_debug_prefix = prefix;
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
  }

  // One statement of each threshold.
  static void log_error() {
    (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(nullptr, 2, nullptr, nullptr);
  }
  static void log_routine() {
    pkgdist_ctrl_msg_hdr header{};
    header.sequence = 7;
    pkgdist_ctrl_recv_process_msg_ack(header, true);
  }
  static void log_warning() {
    pkgdist::rx_msg_add(6, false);
    clock::advance(G_ctrl_rto.segment_timeout);
    pkgdist::rx_msg_scan();
  }

  static void expect_match(const std::string& text, const std::string& pattern) {
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
  }
};

const char kTime[] = "[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
const char kError[] = "ERR:instcomm_pkgdist_ctrl_mc_hdlr_attach: levm passed is NULL\n\n";

TEST_F(LogCopy, a_name_with_control_characters_is_printable) {
  const auto log = [](const std::string& name) {
    pkgdist::log::copy_to_stderr(pkgdist::log::catalogue()[0], "name %s\n", name.c_str());
  };
  EXPECT_NE(std::string::npos, copies_of(1, 0, [&] {
                                 log("a\x1b[2J\nb\x7f\xc2\x9b"
                                     "c\xc3\xbc");
                               }).find("name a?[2J?b?\xc2?c\xc3\xbc\n\n"));
}

TEST_F(LogCopy, a_long_text_is_copied_whole) {
  const std::string name(5000, 'n');
  const std::string copy = copies_of(1, 0, [&] {
    pkgdist::log::copy_to_stderr(pkgdist::log::catalogue()[0], "name %s\n", name.c_str());
  });
  EXPECT_NE(std::string::npos, copy.find("name " + name + "\n\n"));
}

TEST_F(LogCopy, level_0_is_silent) {
  EXPECT_EQ(copies_of(0, 0,
                      [] {
                        log_error();
                        log_warning();
                        log_routine();
                      }),
            "");
}

TEST_F(LogCopy, errors_appear_from_level_1) {
  expect_match(copies_of(1, 0, log_error), std::string("DEBUG ") + kTime + " : " + kError);
}

TEST_F(LogCopy, warnings_of_note_appear_from_level_1) {
  const std::string text = copies_of(1, 0, log_warning);
  expect_match(text, std::string("DEBUG ") + kTime +
                         " : CTRL MC Msg Segment Timeout - Sequence 6 - sending nack\n\n");
}

TEST_F(LogCopy, routine_statements_appear_from_level_2) {
  EXPECT_EQ(copies_of(1, 0, log_routine), "");
  const std::string text = copies_of(2, 0, log_routine);
  EXPECT_NE(text.find(" : CTRL UC ACK - Sequence 7\n\n"), std::string::npos) << text;
}

TEST_F(LogCopy, prefix_1_adds_process_and_thread) {
  expect_match(copies_of(1, 1, log_error), std::string("DEBUG ") + kTime + " pid " +
                                               std::to_string(getpid()) + ", tid " +
                                               std::to_string(gettid()) + " : " + kError);
}

TEST_F(LogCopy, any_other_prefix_adds_function_and_line) {
  for (const int32_t prefix : {2, 5, -1}) {
    expect_match(copies_of(1, prefix, log_error),
                 std::string("DEBUG ") + kTime + " pid [0-9]+, tid [0-9]+, " +
                     "instcomm_pkgdist_ctrl_mc_hdlr_attach, [1-9][0-9]* : " + kError);
  }
}

TEST_F(LogCopy, an_unreadable_clock_gives_the_unknown_time_and_a_second_separator) {
  faults::fail(Call::kClockGettime);
  EXPECT_EQ(copies_of(1, 0, log_error),
            std::string("DEBUG <Unknown Time>       : .000 : ") + kError);
}

TEST_F(LogCopy, the_time_is_that_of_the_place_with_milliseconds) {
  setenv("TZ", "TST-05:45", 1);
  tzset();
  const auto milliseconds = [] {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
  };
  const int64_t before = milliseconds();
  const std::string text = copies_of(1, 0, log_error);
  const int64_t after = milliseconds();

  const auto seconds = static_cast<time_t>(before / 1000);
  tm printed{};
  ASSERT_NE(localtime_r(&seconds, &printed), nullptr);  // the year is not in the text
  const char* rest = strptime(text.c_str(), "DEBUG %b %d %H:%M:%S.", &printed);
  ASSERT_NE(rest, nullptr) << text;
  const int64_t copied = int64_t{mktime(&printed)} * 1000 + std::atoi(rest);
  EXPECT_LE(before, copied);
  EXPECT_LE(copied, after);
  unsetenv("TZ");
  tzset();
}

TEST_F(LogCopy, the_trace_record_is_written_whatever_the_level) {
  copies_of(0, 0, log_error);
  EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_ctrl_mc_hdlr_attach: levm passed is NULL\n"));
}

TEST_F(LogCopy, the_unused_debug_level_changes_nothing) {
  G_pkgdist_debug_lvl = 9;
  EXPECT_EQ(copies_of(0, 0, log_error), "");
  G_pkgdist_debug_lvl = 0;
}

}  // namespace
