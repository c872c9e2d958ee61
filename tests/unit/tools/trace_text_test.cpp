// Records as text, and which of them are shown.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "selection.h"
#include "trace_reader.h"

using namespace pkgdist::trace;

namespace {

Argument text(const char* value) {
  return {'s', value, 0};
}
Argument narrow(int32_t value) {
  return {'d', "", static_cast<uint32_t>(value)};
}
Argument wide(uint64_t value) {
  return {'D', "", value};
}

std::string rendered(const char* format, std::vector<Argument> arguments, bool cut = false) {
  Point point;
  point.format = format;
  Record record;
  record.arguments = std::move(arguments);
  record.cut = cut;
  return render(point, record);
}

TEST(TraceText, directives_print_what_printf_would) {
  EXPECT_EQ("ERR:f: failed: -5(No)",
            rendered("ERR:%s: failed: %d(%s)\n", {text("f"), narrow(-5), text("No")}));
  EXPECT_EQ("4294967291 fffffffb", rendered("%u %x", {narrow(-5), narrow(-5)}));
  EXPECT_EQ("18446744073709551615 -1 ff",
            rendered("%zu %zd %lx", {wide(UINT64_MAX), wide(UINT64_MAX), wide(255)}));
  EXPECT_EQ("'0xdead' '(nil)'", rendered("'%p' '%p'", {wide(0xDEAD), wide(0)}));
  EXPECT_EQ("[   7] [007] [ab ] 100%",
            rendered("[%4d] [%03d] [%-3s] 100%%", {narrow(7), narrow(7), text("ab")}));
  EXPECT_EQ("abc", rendered("%.3s", {text("abcdef")}));
}

TEST(TraceText, what_does_not_fit_together_shows_as_a_question_mark) {
  EXPECT_EQ("<?>", rendered("%d", {text("text")}));
  EXPECT_EQ("<?>", rendered("%s", {wide(0x4141414141414141)})) << "a number is no address";
  EXPECT_EQ("<?> <?>", rendered("%d %s", {}));
  EXPECT_EQ("<?>", rendered("%n", {wide(1)}));
  EXPECT_EQ("<?>", rendered("%", {wide(1)}));
  EXPECT_EQ("<?>", rendered("%999999999d", {narrow(1)})) << "no width of gigabytes";
  EXPECT_EQ("<?>d", rendered("%*d", {narrow(1)}));
}

TEST(TraceText, control_characters_are_taken_out_and_cuts_are_told) {
  EXPECT_EQ("a?[1mb [cut]", rendered("%s\n", {text("a\x1b[1mb")}, true));
}

TEST(TraceText, identifiers_have_no_sign_and_other_numbers_do) {
  EXPECT_EQ("Xact Id 4006002489 Loc -1",
            rendered("Xact Id %d Loc %d", {narrow(static_cast<int32_t>(4006002489)), narrow(-1)}));
  EXPECT_EQ("xact id '4006002489' is invalid",
            rendered("xact id '%d' is invalid", {narrow(static_cast<int32_t>(4006002489))}));
  EXPECT_EQ("CTRL Sequence 4294967295, rc=-1",
            rendered("CTRL Sequence %d, rc=%d", {narrow(-1), narrow(-1)}));
}

TEST(TraceText, a_status_stands_in_words_beside_its_number) {
  constexpr uint64_t kNoSpace = 0x40001278ca10001c, kCancelled = 0x30101278ca100bf5;
  EXPECT_EQ("Status 40001278ca10001c (No space left on device)",
            rendered("Status %lx\n", {wide(kNoSpace)}));
  EXPECT_EQ("status 3463288423443336181 (cancelled) - x",
            rendered("status %ld - x", {wide(kCancelled)}));
  EXPECT_EQ("Status 0", rendered("Status %lx", {wide(0)}));
  EXPECT_EQ("Size 40001278ca10001c", rendered("Size %lx", {wide(kNoSpace)}));
}

constexpr uint64_t kSecond = 1'000'000'000;

TEST(TraceSelection, times_before_now) {
  constexpr uint64_t kNow = 1'000'000 * kSecond;
  EXPECT_EQ(kNow - 30 * kSecond, parse_time("30s", kNow));
  EXPECT_EQ(kNow - 300 * kSecond, parse_time("5m", kNow));
  EXPECT_EQ(kNow - 5400 * kSecond, parse_time("1.5h", kNow));
  EXPECT_EQ(kNow - 2 * 86400 * kSecond, parse_time("2d", kNow));
  EXPECT_EQ(0u, parse_time("1000d", kNow));
  EXPECT_EQ(12 * kSecond + kSecond / 2, parse_time("@12.5", kNow));
}

TEST(TraceSelection, times_of_day_and_date) {
  setenv("TZ", "UTC", 1);
  tzset();
  constexpr uint64_t kNow = 1'795'195'628 * kSecond;  // 2026-11-20 17:27:08
  EXPECT_EQ((1'795'195'628 - 8) * kSecond, parse_time("17:27", kNow));
  EXPECT_EQ(kNow + kSecond / 2, parse_time("17:27:08.5", kNow));
  EXPECT_EQ(kNow - 86400 * kSecond, parse_time("2026-11-19 17:27:08", kNow));
  EXPECT_EQ(kNow, parse_time("2026-11-20T17:27:08", kNow));
}

TEST(TraceSelection, what_is_no_time_is_refused) {
  for (const char* words : {"", "x", "5", "5x", "5mm", "-1s extra", "25:00", "12:60", "12",
                            "12:30:99", "@", "@nan", "2026-11-20", "nans", "@1e300", "12:30x"})
    EXPECT_FALSE(parse_time(words, kSecond)) << words;
}

Point point(const char* file, const char* function, int first, int second) {
  Point made;
  made.file = file;
  made.function = function;
  made.first = first;
  made.second = second;
  return made;
}

TEST(TraceSelection, levels_include_what_is_more_severe) {
  const Point error = point("", "", 1, 0), warning = point("", "", 1, 1),
              info = point("", "", 2, 1);
  EXPECT_EQ(Level::kError, level_of(error));
  EXPECT_EQ(Level::kWarning, level_of(warning));
  EXPECT_EQ(Level::kInfo, level_of(info));
  Selection selection;
  selection.level = Level::kWarning;
  EXPECT_TRUE(selection.wants(error, {}));
  EXPECT_TRUE(selection.wants(warning, {}));
  EXPECT_FALSE(selection.wants(info, {}));
}

TEST(TraceSelection, names_may_be_patterns_and_files_stand_without_directory) {
  const Point one = point("pkgdist/src/pkgdist_log.cpp", "open_traces", 1, 1);
  const auto wants = [&](const char* function, const char* file) {
    Selection selection;
    selection.function = function;
    selection.file = file;
    return selection.wants(one, {});
  };
  EXPECT_TRUE(wants("", ""));
  EXPECT_TRUE(wants("open_traces", "pkgdist_log.cpp"));
  EXPECT_TRUE(wants("open*", "pkgdist/src/*"));
  EXPECT_FALSE(wants("open", ""));
  EXPECT_FALSE(wants("", "log.cpp"));
  EXPECT_FALSE(wants("other*", "pkgdist_log.cpp"));
}

TEST(TraceSelection, both_ends_of_the_time_belong_to_it) {
  Selection selection;
  selection.since_ns = 5;
  selection.until_ns = 7;
  Record record;
  const auto wants = [&](uint64_t time) {
    record.realtime_ns = time;
    return selection.wants(Point{}, record);
  };
  EXPECT_FALSE(wants(4));
  EXPECT_TRUE(wants(5));
  EXPECT_TRUE(wants(7));
  EXPECT_FALSE(wants(8));
}

}  // namespace
