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

// The copy of a statement that names this.
std::string copy_of_name(const std::string& name) {
  testing::internal::CaptureStderr();
  pkgdist::log::copy_to_stderr(pkgdist::log::catalogue()[0], "name [%s]\n", name.c_str());
  const std::string copy = testing::internal::GetCapturedStderr();
  const size_t begin = copy.find("name [");
  return begin == std::string::npos ? copy : copy.substr(begin);
}

TEST_F(LogCopy, a_name_with_control_characters_is_printable) {
  EXPECT_EQ(copy_of_name("a\x1b[2J\nb\x7f\xc2\x80\xc2\x9b\xc2\x9f"
                         "c\xc2\xa0\xc3\xbc"),
            "name [a?[2J?b????c\xc2\xa0\xc3\xbc]\n\n");
}

TEST_F(LogCopy, a_name_with_marks_that_turn_text_is_printable) {
  for (const char* mark : {"\u202a", "\u202b", "\u202c", "\u202d", "\u202e", "\u2066", "\u2067",
                           "\u2068", "\u2069", "\u200e", "\u200f", "\u2028", "\u2029"})
    EXPECT_EQ(copy_of_name(std::string("a") + mark + "b"), "name [a?b]\n\n");
  EXPECT_EQ(copy_of_name("\u2027\u202f\u2065\u206a\U0001f4e6"),
            "name [\u2027\u202f\u2065\u206a\U0001f4e6]\n\n");
}

TEST_F(LogCopy, bytes_that_are_no_utf8_go_one_by_one) {
  EXPECT_EQ(copy_of_name("a\x9b\x32J"), "name [a?2J]\n\n") << "a control character by itself";
  EXPECT_EQ(copy_of_name("\xc3(\xe2\x80\xff"), "name [?(???]\n\n");
  EXPECT_EQ(copy_of_name("\xc0\x9b\xe0\x82\x9b\xf0\x80\x82\x9b"), "name [?????????]\n\n")
      << "longer than it need be";
  EXPECT_EQ(copy_of_name("a\xe2\x80"), "name [a??]\n\n");
}

TEST_F(LogCopy, the_record_keeps_what_the_copy_does_not_show) {
  const std::string name = "\x1b[2J\u202e\x9b";
  copies_of(1, 0, [&] {
    (void)instcomm_pkgdist_get_file(("../" + name).c_str(), 1, 1, 1, 7, nullptr, nullptr, nullptr);
  });
  EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_get_file: file path '../" + name +
                             "' passed leaves the storage location\n"));
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
